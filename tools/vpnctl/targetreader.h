#pragma once

#include "options.h"
#include "target.h"

namespace vpnctl {

/// Where a connect command is to go, and what its user should know about it.
struct TargetList
{
    Targets targets; ///< in the order in which to try them, at least one
    QStringList notes; ///< one sentence each
    Weaknesses weaknesses;
};

/// Reads the profile, the record or the files that the options name.
/// @throws Problem when they are wrong, or lack ca, cert or key.
TargetList readTargets(const Options &options);

/// Reads a server record as support staff write it: a JSON object with the keys "name", "id",
/// "info", "host", "ca", "key", "cert", "udpPort" and "tcpPort", all but "host" optional. "ca",
/// "key" and "cert" are paths of PEM files, relative ones relative to the record, or the PEM text
/// itself. A port that is missing or 0 means that the server does not serve the transport.
/// @param unknownKeys set to the keys that mean nothing, when it is given.
/// @throws Problem when the record is wrong.
VpnServerInformation readServerRecord(const QString &path, QStringList *unknownKeys = nullptr);

} // namespace vpnctl
