#include "launchd.h"

#include "ipcurls.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QDir>
#include <QtCore/QThread>

#include <csignal>

namespace {

constexpr int kGroupLimitMs = 10'000;

/// What launchd leaves a process group between SIGTERM and SIGKILL. How much a script gets done
/// meanwhile is up to the machine.
constexpr unsigned long kGraceMs = 20;

void freeSocketNames()
{
    const QFileInfo service(shared::getIpcServiceUrl());
    QDir folder = service.dir();
    for (const QString &name :
         folder.entryList({service.fileName() + QLatin1Char('*')}, QDir::System))
        folder.remove(name);
}

} // namespace

LaunchdJob::LaunchdJob()
{
    m_daemon.setWrapper({QStringLiteral("setsid")});
}

LaunchdJob::~LaunchdJob()
{
    if (m_daemon.isRunning())
        kill();
}

bool LaunchdJob::start()
{
    freeSocketNames();
    return m_daemon.start();
}

bool LaunchdJob::startOnly()
{
    freeSocketNames();
    return m_daemon.startOnly();
}

bool LaunchdJob::kill(Survivors survivors)
{
    const auto group = static_cast<pid_t>(m_daemon.pid());
    m_daemon.kill();
    if (survivors == Survivors::StayAlive)
        return true;
    ::kill(-group, SIGTERM);
    QThread::msleep(kGraceMs);
    const QDeadlineTimer deadline(kGroupLimitMs);
    while (::kill(-group, SIGKILL) == 0) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(1);
    }
    return true;
}
