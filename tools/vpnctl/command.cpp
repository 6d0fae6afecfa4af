#include "command.h"

#include "guardlimits.h"
#include "ipcurls.h"
#include "peeruser.h"
#include "rep_ipcinterface_replica.h"
#include "rep_serviceinterface_replica.h"

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

/// To connect to the main socket only to see whether somebody listens there.
constexpr int kTrialLimitMs = 15'000;

/// A daemon that ends closes its sockets one by one; so much later all are closed.
constexpr auto kEndingTime = 100ms;

/// How often it is said that the daemon has not answered: on a terminal, and in lines.
constexpr std::chrono::milliseconds kLivePeriod = 100ms;
constexpr std::chrono::milliseconds kLinePeriod = 5s;

/// What is in the frame of a command beside its texts; docs/protocol-frames.md shows each byte.
constexpr qint64 kBytesBesideTexts = 137;

/// Why there is no connection: mostly because there is no daemon at all.
/// @param otherwise what it is when there is one.
Problem connectionProblem(const Problem &otherwise)
{
    const QString name = shared::getIpcServiceUrl();
    QLocalSocket socket;
    socket.connectToServer(name);
    if (socket.waitForConnected(kTrialLimitMs))
        return otherwise;
    switch (socket.error()) {
    case QLocalSocket::ServerNotFoundError:
        return {ExitCode::NoDaemon,
                QString("The daemon is not running: there is no socket %1.").arg(name),
                "Start it: sudo launchctl bootstrap system "
                "/Library/LaunchDaemons/TalvexVpnd.plist. If that fails, somebody has switched the "
                "job off: switch it on in Login Items."};
    case QLocalSocket::ConnectionRefusedError:
        return {
            ExitCode::NoDaemon,
            QString("The daemon is not running: it left the socket %1 behind.").arg(name),
            QString(
                "Have launchd start it anew: sudo launchctl kickstart -k "
                "system/com.talvex.talvexvpnd. If launchd does not know the job, somebody has "
                "switched it off: switch it on in Login Items. Before starting it by hand, remove "
                "the file (sudo rm '%1'), or it cannot listen.")
                .arg(name)};
    default:
        return {ExitCode::NoDaemon,
                QString("Cannot connect to the daemon's socket %1: %2.")
                    .arg(name, socket.errorString()),
                "Every user should be allowed to read and write it."};
    }
}

} // namespace

void Command::checkLength(const QString &message, const VpnServerInformation &server)
{
    qint64 length = kBytesBesideTexts;
    for (const QString &text :
         {message, server.name, server.info, server.host, server.ca, server.key, server.cert})
        length += text.size() * qint64(sizeof(QChar));
    if (length > guard::kMaxFrameBytes) {
        throw wrongUse(QString("The command with its record takes %1 bytes, and the daemon "
                               "accepts %2 at most.")
                           .arg(length)
                           .arg(guard::kMaxFrameBytes),
                       "Every character takes two. Leave out the certificates that "
                       "the server does not need.");
    }
}

Command::Command(const Options &options, Report &report)
    : m_options(options)
    , m_report(report)
{
    m_limit.setSingleShot(true);
    connect(&m_limit, &QTimer::timeout, this, &Command::giveUpWaiting);
    m_heartbeat.setInterval(options.limits.heartbeatPeriod);
    connect(&m_heartbeat, &QTimer::timeout, this, [this] { m_service.replica->server_slot(true); });
    connect(&m_progress, &QTimer::timeout, this,
            [this] { m_report.waiting(std::chrono::nanoseconds(m_sinceRequest.nsecsElapsed())); });
}

Command::~Command() = default;

void Command::openMainSocket()
{
    open(m_main, shared::getIpcServiceUrl(), &Command::opened);
}

void Command::openNewEndpoint()
{
    open(m_main, shared::getIpcServiceUrl(), &Command::createEndpoint);
}

void Command::openEndpoint(int endpoint)
{
    m_endpoint = endpoint;
    open(m_service, shared::getIpcProcessUrl(endpoint), &Command::opened);
}

void Command::send(const QString &message, const VpnServerInformation &server)
{
    if (m_isFinished)
        return;
    m_service.replica->vpn_command(message, server);
    await(m_options.answerLimit);
}

void Command::keepAlive()
{
    m_service.replica->server_slot(true);
    m_heartbeat.start();
}

template<typename Replica>
void Command::open(Link<Replica> &link, const QString &name, void (Command::*next)())
{
    QLocalSocket &socket = link.socket;
    connect(&socket, &QLocalSocket::errorOccurred, this, [this](auto error) {
        if (error != QLocalSocket::PeerClosedError)
            finishWith(connectionProblem(
                wrongUse(QString("The daemon has no endpoint %1.").arg(m_endpoint),
                         "\"vpnctl status\" lists those that have a socket.")));
    });
    connect(&socket, &QLocalSocket::disconnected, this, [this] {
        QTimer::singleShot(kEndingTime, this, [this] {
            if (!m_isFinished)
                finishWith(connectionProblem(
                    {ExitCode::NoDaemon, "The daemon closed the connection; its log says why.",
                     "It is running. It refuses connections when it has no "
                     "descriptor left, and closes those that go beyond its "
                     "limits."}));
        });
    });
    connect(&socket, &QLocalSocket::connected, this, [this, &link, next] {
        // Whoever has the name of a socket could take a private key for himself.
        const quint32 user = userOfPeer(static_cast<int>(link.socket.socketDescriptor()));
        if (user != kRootUser)
            return finishWith(
                {ExitCode::NoDaemon,
                 QString("The program at the other end of %1 is not root's, but that of user %2. "
                         "Nothing was sent.")
                     .arg(link.socket.fullServerName())
                     .arg(user),
                 "That is not the daemon. Tell who administers this computer."});
        link.node.addClientSideConnection(&link.socket);
        link.replica.reset(link.node.template acquire<Replica>());
        if constexpr (std::is_same_v<Replica, ServiceInterfaceReplica>)
            connect(link.replica.data(), &Replica::vpn_cmd_result, this,
                    [this](const QString &message, const OperationResult &result) {
                        if (!m_isFinished) // another answer may come before the program ends
                            answered(message, result);
                    });
        connect(link.replica.data(), &Replica::stateChanged, this, [this, next](auto state) {
            if (state == QRemoteObjectReplica::SignatureMismatch)
                finishWith({ExitCode::NoDaemon,
                            "What listens on the daemon's socket speaks another "
                            "interface.",
                            "Use the vpnctl that came with the daemon."});
            if (state != QRemoteObjectReplica::Valid || m_isFinished)
                return;
            answerArrived();
            (this->*next)();
        });
    });
    await(m_options.limits.handshake);
    socket.connectToServer(name);
}

void Command::createEndpoint()
{
    await(m_options.limits.handshake);
    auto *call =
        new QRemoteObjectPendingCallWatcher(m_main.replica->createPrivilegedProcess(), this);
    connect(call, &QRemoteObjectPendingCallWatcher::finished, this, [this, call] {
        const int endpoint = call->returnValue().toInt();
        if (endpoint <= 0) {
            return finishWith({ExitCode::Failed, "The daemon could not make an endpoint.",
                               "A socket file in /tmp may be in the way, or the daemon "
                               "has no descriptor left; its log says which."});
        }
        if (m_isFinished)
            return;
        m_report.print("endpoint", {{"endpoint", endpoint}}, QString("Endpoint: %1").arg(endpoint));
        openEndpoint(endpoint);
    });
}

void Command::await(std::chrono::milliseconds limit)
{
    m_limit.start(limit);
    m_sinceRequest.start();
    m_progress.start(m_report.isLive() ? kLivePeriod : kLinePeriod);
}

Seconds Command::answerArrived()
{
    m_limit.stop();
    m_progress.stop();
    return std::chrono::nanoseconds(m_sinceRequest.nsecsElapsed());
}

Problem Command::lateAnswer() const
{
    const auto seconds = m_limit.interval() / 1000;
    if (!m_service.replica || !m_service.replica->isInitialized()) {
        return {
            ExitCode::NoAnswer,
            QString("The daemon accepts connections but did not answer within %1 seconds.")
                .arg(seconds),
            "It is very busy, stopped or hanging. Try again; if that does not help, look at its "
            "log, and restart it as a last resort."};
    }
    return {ExitCode::NoAnswer,
            QString("The daemon did not answer the command within %1 seconds.").arg(seconds),
            "It may be busy with other clients, or does not know the command; --timeout waits "
            "longer, the daemon's log may say more."};
}

void Command::finish(ExitCode exitCode)
{
    if (m_isFinished)
        return;
    m_isFinished = true;
    answerArrived();
    m_heartbeat.stop();
    Q_EMIT finished(exitCode);
}

void Command::finishWith(const Problem &problem)
{
    if (m_isFinished)
        return;
    m_report.problem(problem);
    finish(problem.exitCode);
}

} // namespace vpnctl
