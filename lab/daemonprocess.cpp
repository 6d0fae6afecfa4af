#include "daemonprocess.h"

#include "ipcurls.h"
#include "privateroot.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QRegularExpression>
#include <QtNetwork/QLocalSocket>

namespace {

constexpr int kStartLimitMs = 20'000;

const QLatin1String kBundle("/Applications/Talvex VPN.app/Contents");

void mustCopy(const QString &from, const QString &to)
{
    QFile::remove(to);
    if (!QFile::copy(from, to))
        qFatal("cannot copy %s to %s", qPrintable(from), qPrintable(to));
}

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
    QDir().mkpath(programFolder());
    QDir().mkpath(kBundle + QStringLiteral("/Resources"));
    mustCopy(QStringLiteral(TALVEX_DAEMON), programFolder() + QStringLiteral("/talvexvpnd"));
    for (const QString &script :
         {QStringLiteral("update_conf_up"), QStringLiteral("update_conf_down")}) {
        mustCopy(QStringLiteral(TALVEX_RESOURCES "/") + script,
                 kBundle + QStringLiteral("/Resources/") + script);
    }
    const QString program = programFolder() + QStringLiteral("/openvpn");
    QFile::remove(program);
    if (openvpn == Openvpn::StandIn)
        QFile::link(QStringLiteral(TALVEX_STANDIN_OPENVPN), program);
    else if (openvpn == Openvpn::Real)
        QFile::link(QStringLiteral("/usr/sbin/openvpn"), program);
}

void DaemonProcess::setEnvironment(const QString &name, const QString &value)
{
    m_environment.insert(name, value);
    m_process.setProcessEnvironment(m_environment);
}

bool DaemonProcess::startOnly()
{
    QStringList command = m_wrapper;
    command.append(programFolder() + QStringLiteral("/talvexvpnd"));
    const QString program = command.takeFirst();
    m_process.start(program, command);
    return m_process.waitForStarted();
}

bool DaemonProcess::start()
{
    if (!startOnly())
        return false;
    QElapsedTimer timer;
    timer.start();
    while (!isListening()) {
        if (m_process.waitForFinished(20) || timer.hasExpired(kStartLimitMs))
            return false;
    }
    // The trial connection must not be mistaken for a test's own.
    while (count(QStringLiteral("LocalServer new connection")) == 0) {
        if (!m_process.waitForReadyRead(kStartLimitMs))
            return false;
    }
    m_log.clear();
    return true;
}

bool DaemonProcess::isListening()
{
    QLocalSocket socket;
    socket.connectToServer(shared::getIpcServiceUrl());
    return socket.waitForConnected(100);
}

void DaemonProcess::kill()
{
    m_process.kill();
    m_process.waitForFinished();
}

QStringList DaemonProcess::log()
{
    m_log += m_process.readAllStandardError();
    QStringList lines = QString::fromUtf8(m_log).split(QLatin1Char('\n'));
    lines.removeLast();
    return lines;
}

QStringList DaemonProcess::linesWith(const QString &start)
{
    return log().filter(QRegularExpression(QLatin1Char('^') + QRegularExpression::escape(start)));
}

int DaemonProcess::descriptors() const
{
    return QDir(QStringLiteral("/proc/%1/fd").arg(pid()))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}
