#pragma once

#include <QtCore/QMetaType>

namespace vpnctl {

/// What the program says to the shell; the manual page repeats this list.
enum class ExitCode {
    Done = 0,
    Failed = 1, ///< The daemon answered failure, or missed the heartbeat.
    WrongUse = 2, ///< Command line, profile, record or endpoint number are wrong.
    NoDaemon = 3, ///< The daemon is not there, has gone, or closed the connection.
    NoAnswer = 4, ///< The daemon did not answer in time.
    Interrupted = 130, ///< Stopped from outside before the work was done.
};

} // namespace vpnctl

Q_DECLARE_METATYPE(vpnctl::ExitCode)
