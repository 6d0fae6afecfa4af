#pragma once

#include <functional>

class QObject;

namespace vpnctl {

/// From here on SIGINT, SIGTERM and SIGHUP do not end the process, but have @p handle called from
/// the event loop. Those that are ignored stay so. Call once.
/// @param context must be there when @p handle is called; with it the calls end.
void onStopSignal(QObject *context, const std::function<void()> &handle);

/// Has @p handle called when the standard input ends. A device like /dev/null, and a terminal while
/// the program runs in the background, say nothing about anybody's wish and are not watched.
void onInputEnd(QObject *context, const std::function<void()> &handle);

} // namespace vpnctl
