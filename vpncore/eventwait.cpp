#include "eventwait.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>

#include <algorithm>

namespace vpncore {

bool waitUntil(QDeadlineTimer deadline, const std::function<bool()> &isDone)
{
    // The alarm has nothing to call: that it fires is what wakes the loop at the deadline.
    QTimer alarm;
    alarm.setSingleShot(true);
    alarm.setTimerType(Qt::PreciseTimer);

    while (!isDone()) {
        if (deadline.hasExpired())
            return false;
        // Where there is no GLib, a turn of the loop sends what was posted and then sleeps,
        // whatever that has changed. So it is sent before, and the condition is tested once more.
        QCoreApplication::sendPostedEvents();
        if (isDone())
            return true;
        if (!deadline.isForever() && !alarm.isActive()) {
            const qint64 remaining = std::clamp<qint64>(deadline.remainingTime(), 1, INT_MAX);
            alarm.start(static_cast<int>(remaining));
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

} // namespace vpncore
