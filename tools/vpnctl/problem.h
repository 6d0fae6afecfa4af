#pragma once

#include <QtCore/QString>

namespace vpnctl {

/// What the program says to the shell; the manual page repeats this list.
enum ExitCode {
    Done = 0,
    Failed = 1, ///< The daemon answered failure, or the tunnel has gone.
    WrongUse = 2, ///< Command line, profile, record or endpoint number are wrong.
    NoDaemon = 3, ///< The daemon is not there, has gone, or closed the connection.
    NoAnswer = 4, ///< The daemon did not answer in time.
    Interrupted = 130, ///< Stopped from outside before the work was done.
};

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
