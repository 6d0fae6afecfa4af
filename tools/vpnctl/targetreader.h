#pragma once

#include "options.h"
#include "target.h"

#include <QtCore/QStringList>

#include <optional>

namespace vpnctl {

/// Where a connect command is to go, and what its user should know about it.
struct TargetList
{
    Targets targets; ///< in the order in which to try them, at least one
    QStringList notes; ///< one sentence each
};

/// Reads the profile, the record or the files that the options name.
/// @param error set, when nothing is returned, to one sentence.
std::optional<TargetList> readTargets(const Options &options, QString *error);

} // namespace vpnctl
