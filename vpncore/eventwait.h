#pragma once

#include <QtCore/QDeadlineTimer>

#include <functional>

namespace vpncore {

/// The one way in which this program waits: the event loop turns, and the thread sleeps between
/// events. Timers, remote calls and process notifications are served meanwhile, so a caller must
/// expect that anything it shares with them has changed when this returns.
///
/// Needs a `QCoreApplication`. Waits may nest; an outer one ends only after the inner one did.
///
/// @param deadline when to stop waiting; `QDeadlineTimer::Forever` for no limit.
/// @param isDone tested once before the first event and again after every turn of the loop. Without
///        it, nothing ends the wait before @p deadline.
/// @return true as soon as @p isDone held, false when the deadline came first.
bool waitUntil(
    QDeadlineTimer deadline, const std::function<bool()> &isDone = [] { return false; });

} // namespace vpncore
