#pragma once

#include "exitcode.h"

#include <QtCore/QString>

namespace vpnctl {

/// Why the program cannot go on. What reads the command line and its files throws it.
struct Problem
{
    ExitCode exitCode = ExitCode::WrongUse;
    QString text; ///< One sentence: what is wrong.
    QString advice; ///< What to do about it; may be empty.
};

/// @return the problem of a command line, a file or an endpoint's number that is wrong.
inline Problem wrongUse(const QString &text, const QString &advice = {})
{
    return {ExitCode::WrongUse, text, advice};
}

} // namespace vpnctl
