#include "daemonprocess.h"

#include "ipcurls.h"
#include "privateroot.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QDir>
#include <QtCore/QRegularExpression>
#include <QtNetwork/QLocalSocket>

namespace {

constexpr int kStartLimitMs = 20'000;

} // namespace

DaemonProcess::DaemonProcess(Openvpn openvpn)
{
    if (!lab::isPrivateRoot())
        qFatal("the daemon under test may only be installed in a private root");
    install(openvpn);
    m_process.setReadChannel(QProcess::StandardError); // which waitForReadyRead() then waits for
    connect(&m_process, &QProcess::readyReadStandardError, this,
            [this] { m_log += m_process.readAllStandardError(); });
}

DaemonProcess::~DaemonProcess()
{
    kill();
}

void DaemonProcess::install(Openvpn openvpn)
{
    if (QProcess::execute("cp", {"-R", "--remove-destination", TALVEX_BUNDLE, "/Applications"})
        != 0)
        qFatal("cannot install the daemon");
    const QString program = programFolder() + "/openvpn"; // the bundle's own is the real one
    if (openvpn != Openvpn::Real)
        QFile::remove(program);
    if (openvpn == Openvpn::StandIn)
        QFile::link(TALVEX_STANDIN_OPENVPN, program);
}

bool DaemonProcess::startOnly()
{
    QStringList command = m_wrapper;
    command.append(programFolder() + "/talvexvpnd");
    const QString program = command.takeFirst();
    m_process.start(program, command);
    return m_process.waitForStarted();
}

bool DaemonProcess::start()
{
    if (!startOnly() || !waitUntilItListens(m_process))
        return false;
    // The trial connection must not be mistaken for a test's own.
    while (count("LocalServer new connection") == 0) {
        if (!m_process.waitForReadyRead(kStartLimitMs))
            return false;
    }
    m_log.clear();
    return true;
}

bool DaemonProcess::waitUntilItListens(QProcess &process)
{
    const QDeadlineTimer deadline(kStartLimitMs);
    while (!process.waitForFinished(20) && !deadline.hasExpired()) {
        QLocalSocket socket;
        socket.connectToServer(shared::getIpcServiceUrl());
        if (socket.waitForConnected(100))
            return true;
    }
    return false;
}

void DaemonProcess::kill()
{
    m_process.kill();
    m_process.waitForFinished();
}

QStringList DaemonProcess::log()
{
    m_log += m_process.readAllStandardError();
    QStringList lines = QString::fromUtf8(m_log).split('\n');
    lines.removeLast();
    return lines;
}

QStringList DaemonProcess::linesWith(const QString &start)
{
    return log().filter(QRegularExpression('^' + QRegularExpression::escape(start)));
}

int DaemonProcess::descriptors() const
{
    return QDir(QString("/proc/%1/fd").arg(pid()))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}
