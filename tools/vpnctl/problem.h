#pragma once

#include "exitcode.h"

#include <QtCore/QString>

namespace vpnctl {

/// Why the program cannot go on.
struct Problem
{
    ExitCode exitCode = ExitCode::WrongUse;
    QString text; ///< One sentence: what is wrong.
    QString advice; ///< What to do about it; may be empty.
};

} // namespace vpnctl
