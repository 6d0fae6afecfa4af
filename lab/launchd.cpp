#include "launchd.h"

#include "daemonprocess.h"
#include "files.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QDir>
#include <QtCore/QThread>

#include <csignal>

namespace {

constexpr int kLimitMs = 20'000;

/// What launchd leaves a process group between SIGTERM and SIGKILL. How much a script gets done
/// meanwhile is up to the machine.
constexpr unsigned long kGraceMs = 20;

} // namespace

LaunchdJob::LaunchdJob()
{
    const DaemonProcess installed; // which is not started, but lies in its place
    QDir().mkpath("/var/log");
    const QString launcher = "/Library/Application Support/Talvex VPN Service/Talvex VPN Service";
    if (QProcess::execute("install", {"-D", TALVEX_PACKAGING "/launcher", launcher}) != 0)
        qFatal("cannot install the launcher");
}

LaunchdJob::~LaunchdJob()
{
    crash();
}

bool LaunchdJob::startOnly()
{
    start("launchctl", {"become", TALVEX_PACKAGING "/TalvexVpnd.plist"});
    if (!waitForStarted())
        return false;
    m_group = processId();
    return true;
}

bool LaunchdJob::run()
{
    return startOnly() && DaemonProcess::waitUntilItListens(*this);
}

bool LaunchdJob::crash(Survivors survivors)
{
    QProcess::kill();
    waitForFinished();
    const auto group = static_cast<pid_t>(m_group);
    m_group = 0;
    if (survivors == Survivors::StayAlive || group == 0 || ::kill(-group, SIGTERM) != 0)
        return true;
    QThread::msleep(kGraceMs);
    const QDeadlineTimer deadline(kLimitMs);
    while (::kill(-group, SIGKILL) == 0) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(1);
    }
    return true;
}

QByteArray LaunchdJob::log() const
{
    return lab::contentOf("/var/log/talvexvpnd.log");
}
