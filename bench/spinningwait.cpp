#include "eventwait.h"

#include <QtCore/QCoreApplication>

// The baseline for rows on processor time: the same waits as a spin over processEvents(). A program
// that is linked with this file takes these two functions instead of those in the library.

namespace vpncore {

bool waitUntil(QDeadlineTimer deadline, const std::function<bool()> &isDone)
{
    constexpr int kTurnMs = 100;
    while (!isDone()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, kTurnMs);
    }
    return true;
}

void waitUntil(QDeadlineTimer deadline)
{
    waitUntil(deadline, [] { return false; });
}

} // namespace vpncore
