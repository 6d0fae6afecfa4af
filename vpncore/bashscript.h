#pragma once

#include <QtCore/QString>

#include <chrono>

namespace vpncore {

/// Runs a script with "/bin/bash -c" and logs what it printed, in quotes, as one debug line.
///
/// Blocks the calling thread and does not turn the event loop. Only standard output is collected,
/// and the exit status is never read. At the limit, bash is killed; a program that it has
/// started lives on.
///
/// @param script the whole text, passed to bash unchanged.
/// @param limit how long to wait for its end.
/// @return its standard output up to the first zero byte, decoded as UTF-8; empty when bash
///         could not be started.
QString runBashScript(const QString &script, std::chrono::milliseconds limit);

} // namespace vpncore
