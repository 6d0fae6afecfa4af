#include "subjects.h"

#include "dnsscripts.h"
#include "ipcurls.h"
#include "measures.h"
#include "privateroot.h"
#include "vpnlab.h"

#include <QtCore/QFile>
#include <QtNetwork/QLocalSocket>

#include <stdexcept>
#include <thread>

namespace {

bool accepts(const QString &socketName)
{
    QLocalSocket socket;
    socket.connectToServer(socketName);
    return socket.waitForConnected();
}

QStringList installedDaemon(DaemonProcess::Openvpn openvpn)
{
    lab::resetPrivateRoot();
    DaemonProcess installs(openvpn);
    return {DaemonProcess::programFolder() + "/talvexvpnd"};
}

} // namespace

void require(bool holds, const char *text)
{
    if (!holds)
        throw std::runtime_error(text);
}

double processorTimeOf(qint64 pid, const std::function<void()> &work)
{
    const double before = measures::processorTime(pid);
    work();
    const double after = measures::processorTime(pid);
    require(before >= 0 && after >= 0, "the program has ended");
    return after - before;
}

double memoryOf(qint64 pid, const char *field)
{
    const qint64 memory = measures::statusOf(pid, field, "smaps_rollup");
    require(memory >= 0, "the memory of the program could not be read");
    return static_cast<double>(memory);
}

double milliseconds(const QElapsedTimer &timer)
{
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

void pollUntil(const std::function<bool()> &isDone, const char *failure)
{
    const QDeadlineTimer deadline(kLimit);
    while (!isDone()) {
        require(!deadline.hasExpired(), failure);
        vpncore::waitUntil(1ms);
    }
}

Program::Program(const QStringList &command, const QString &socketName)
{
    static int programs = 0;
    m_process.setStandardErrorFile(QString("/tmp/program%1.log").arg(++programs));
    QElapsedTimer timer;
    timer.start();
    m_process.start(command.first(), command.mid(1));
    while (!accepts(socketName)) {
        require(milliseconds(timer) < std::chrono::milliseconds(kLimit).count(),
                "the program does not listen");
        std::this_thread::sleep_for(200us);
    }
    m_startTime = milliseconds(timer);
    require(m_process.waitForStarted(), "the program could not be started");
}

Program::~Program()
{
    m_process.kill();
    m_process.waitForFinished();
}

Daemon::Daemon(DaemonProcess::Openvpn openvpn)
    : Program(installedDaemon(openvpn), shared::getIpcServiceUrl())
{
}

MinimalHost::MinimalHost(const QString &commands)
    : Program({TALVEX_MINIMAL_HOST, commands, shared::getIpcProcessUrl(kEndpoint)},
              shared::getIpcProcessUrl(kEndpoint))
{
}

AttachedClient::AttachedClient()
{
    require(attachToNewEndpoint(), "the client could not attach");
}

double AttachedClient::timeOf(const std::function<void()> &command)
{
    const int before = answers().size();
    QElapsedTimer timer;
    timer.start();
    command();
    require(vpncore::waitUntil(kLimit, [&] { return answers().size() > before; }),
            "no answer came");
    return milliseconds(timer);
}

double AttachedClient::connectTunnel(const VpnServerInformation &server, bool isUdp)
{
    const double time = timeOf([&] { isUdp ? connectUdp(server) : connectTcp(server); });
    require(answers().last().result.success, "the connect failed");
    return time;
}

double AttachedClient::endTunnel()
{
    const double time = timeOf([this] { disconnectTunnel(); });
    require(answers().last().result.success, "the disconnect failed");
    return time;
}

void needServers()
{
    require(vpnlab::up(), "the OpenVPN servers could not be started");
}

double runRestoreScript()
{
    QProcess bash;
    QElapsedTimer timer;
    timer.start();
    bash.start("/bin/bash", {"-c", vpncore::dnsRestoreScript()});
    require(bash.waitForFinished(), "the restore script did not end");
    return milliseconds(timer);
}
