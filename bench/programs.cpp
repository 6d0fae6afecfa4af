#include "programs.h"
#include "openvpnoutput.h"

#include "dnsscripts.h"
#include "ipcurls.h"
#include "privateroot.h"
#include "vpnlab.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtNetwork/QLocalSocket>

#include <ctime>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto kLimit = 40s;

double milliseconds(const QElapsedTimer &timer)
{
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool accepts(const QString &socketName)
{
    QLocalSocket socket;
    socket.connectToServer(socketName);
    return socket.waitForConnected();
}

QString logOf(qint64 pid)
{
    return QStringLiteral("/proc/%1/fd/2").arg(pid);
}

QStringList installedDaemon(DaemonProcess::Openvpn openvpn)
{
    lab::resetPrivateRoot();
    DaemonProcess installs(openvpn);
    return {DaemonProcess::programFolder() + QStringLiteral("/talvexvpnd")};
}

} // namespace

double processorTime(qint64 pid)
{
    clockid_t clock = {};
    timespec time = {};
    require(clock_getcpuclockid(static_cast<pid_t>(pid), &clock) == 0
                && clock_gettime(clock, &time) == 0,
            "the program has ended");
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

double memoryOf(qint64 pid, const char *field)
{
    const QByteArray text = contentOf(QStringLiteral("/proc/%1/smaps_rollup").arg(pid));
    const int start = text.indexOf('\n' + QByteArray(field) + ':');
    require(start >= 0, "the memory of the program could not be read");
    return text.mid(text.indexOf(':', start) + 1).simplified().split(' ').first().toDouble();
}

double processorTimeOfSpinning(std::chrono::seconds duration)
{
    QProcess sleep;
    const double before = processorTime(getpid());
    sleep.start(QStringLiteral("sleep"), {QString::number(duration.count())});
    while (sleep.state() != QProcess::NotRunning)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 100);
    require(sleep.error() == QProcess::UnknownError, "there is no sleep");
    return processorTime(getpid()) - before;
}

Program::Program(const QStringList &command, const QString &socketName)
{
    static int programs = 0;
    m_process.setStandardErrorFile(QStringLiteral("/tmp/program%1.log").arg(++programs));
    QElapsedTimer timer;
    timer.start();
    m_process.start(command.first(), command.mid(1));
    while (!accepts(socketName)) {
        require(!timer.hasExpired(std::chrono::milliseconds(kLimit).count()),
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

qint64 Program::logSize() const
{
    return QFileInfo(logOf(pid())).size();
}

QByteArray Program::logFrom(qint64 start) const
{
    return contentOf(logOf(pid())).mid(static_cast<int>(start));
}

Daemon::Daemon(DaemonProcess::Openvpn openvpn)
    : Program(installedDaemon(openvpn), shared::getIpcServiceUrl())
{
}

MinimalHost::MinimalHost(Commands commands)
    : Program({QStringLiteral(TALVEX_MINIMAL_HOST),
               commands == Commands::Read ? QStringLiteral("read") : QStringLiteral("unread"),
               shared::getIpcProcessUrl(kEndpoint)},
              shared::getIpcProcessUrl(kEndpoint))
{
}

Lab::Lab()
{
    require(vpnlab::up(), "the OpenVPN servers could not be started");
}

Lab::~Lab()
{
    vpnlab::down();
}

AttachedClient::AttachedClient()
{
    require(attachToNewEndpoint(), "the client could not attach");
}

double AttachedClient::timeOf(const Command &command)
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

void pollUntil(const std::function<bool()> &isDone, const char *failure)
{
    const QDeadlineTimer deadline(kLimit);
    while (!isDone()) {
        require(!deadline.hasExpired(), failure);
        vpncore::waitUntil(1ms);
    }
}

BareRun runBare(const QString &file)
{
    QProcess openvpn;
    openvpn.setProcessChannelMode(QProcess::MergedChannels);
    vpncore::OpenvpnOutput output; // the laboratory's servers have names that look like success
    QElapsedTimer timer;
    timer.start();
    openvpn.start(DaemonProcess::programFolder() + QStringLiteral("/openvpn"),
                  {QStringLiteral("--config"), file});
    const auto isUp = [&] {
        output.read(openvpn);
        return output.judgedText().contains(QLatin1String(vpncore::kSuccessMarker));
    };
    require(vpncore::waitUntil(kLimit, isUp), "openvpn alone did not come up");
    const double untilSuccess = milliseconds(timer);

    timer.restart();
    openvpn.terminate();
    require(vpncore::waitUntil(kLimit, [&] { return openvpn.state() == QProcess::NotRunning; }),
            "openvpn alone did not end");
    return {untilSuccess, milliseconds(timer)};
}

QString configurationFrom(AttachedClient &client, const VpnServerInformation &server, bool isUdp)
{
    const QString copy = QStringLiteral("/tmp/configuration");
    const auto isCopied = [&copy] {
        const QDir folder(QStringLiteral("/tmp"), QStringLiteral("talvexvpnd.*"));
        for (const QFileInfo &file : folder.entryInfoList(QDir::Files)) {
            if (contentOf(file.filePath()).contains("</key>"))
                return QFile::copy(file.filePath(), copy);
        }
        return false;
    };
    client.timeOf([&] {
        isUdp ? client.connectUdp(server) : client.connectTcp(server);
        // The daemon removes it when the attempt is over.
        pollUntil(isCopied, "the daemon wrote no configuration");
    });
    require(client.outcome() == QLatin1String("success"), "the connect failed");
    client.endTunnel();
    return copy;
}

double runRestoreScript()
{
    QProcess bash;
    QElapsedTimer timer;
    timer.start();
    bash.start(QStringLiteral("/bin/bash"), {QStringLiteral("-c"), vpncore::dnsRestoreScript()});
    require(bash.waitForFinished(), "the restore script did not end");
    return milliseconds(timer);
}
