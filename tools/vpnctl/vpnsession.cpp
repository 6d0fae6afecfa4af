#include "vpnsession.h"

#include "guardlimits.h"
#include "ipcurls.h"
#include "peeruser.h"
#include "rep_ipcinterface_replica.h"
#include "rep_serviceinterface_replica.h"

#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <chrono>

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

/// To connect to the main socket only to see whether somebody listens there.
constexpr int kTrialLimitMs = 15'000;

/// A daemon that ends closes its sockets one by one; so much later all are closed.
constexpr auto kEndingTime = 100ms;

/// What is in the frame of a command beside its texts; docs/protocol-frames.md shows each byte.
constexpr qint64 kBytesBesideTexts = 137;

const QLatin1String kConnectUdp(R"({"type":"connect","cmd":"ovpnUdp"})");
const QLatin1String kConnectTcp(R"({"type":"connect","cmd":"ovpnTcp"})");
const QLatin1String kDisconnect(R"({"type":"openvpn","cmd":"disconnect"})");

QString connectCommand(Transport transport)
{
    return transport == Transport::Udp ? kConnectUdp : kConnectTcp;
}

qint64 frameLength(const QString &message, const VpnServerInformation &server)
{
    qint64 characters = 0;
    for (const QString &text :
         {message, server.name, server.info, server.host, server.ca, server.key, server.cert})
        characters += text.size();
    return kBytesBesideTexts + characters * qint64(sizeof(QChar));
}

Problem noDaemon(const QString &text, const QString &advice)
{
    return {ExitCode::NoDaemon, text, advice};
}

/// Why the main socket could not be connected to.
Problem mainSocketProblem(const QLocalSocket &socket, QLocalSocket::LocalSocketError error)
{
    const QString name = shared::getIpcServiceUrl();
    switch (error) {
    case QLocalSocket::ServerNotFoundError:
        return noDaemon(
            QStringLiteral("The daemon is not running: there is no socket %1.").arg(name),
            QStringLiteral("Start it: sudo launchctl bootstrap system "
                           "/Library/LaunchDaemons/TalvexVpnd.plist"));
    case QLocalSocket::ConnectionRefusedError:
        return noDaemon(
            QStringLiteral("The daemon is not running: it left the socket %1 behind.").arg(name),
            QStringLiteral("Have launchd start it anew: sudo launchctl kickstart -k "
                           "system/com.talvex.talvexvpnd. Before starting it by hand, remove the "
                           "file (sudo rm '%1'), or it cannot listen.")
                .arg(name));
    case QLocalSocket::SocketAccessError:
        return noDaemon(QStringLiteral("You may not connect to the daemon's socket %1.").arg(name),
                        QStringLiteral("Check the permissions of the socket; every user should be "
                                       "allowed to read and write."));
    default:
        return noDaemon(QStringLiteral("Cannot connect to the daemon's socket %1: %2.")
                            .arg(name, socket.errorString()),
                        {});
    }
}

Problem daemonGone()
{
    return noDaemon(QStringLiteral("The daemon has gone: it closed the connection."),
                    QStringLiteral("Its log may say why. A tunnel that was up may be left without "
                                   "anybody to take it down; start the daemon again."));
}

Problem closedByDaemon()
{
    return noDaemon(
        QStringLiteral("The daemon closed the connection; its log says why."),
        QStringLiteral("It is running. It refuses connections when it has no descriptor "
                       "left, and closes those that go beyond its limits."));
}

Problem foreignInterface()
{
    return noDaemon(QStringLiteral("What listens on the daemon's socket speaks another interface."),
                    QStringLiteral("Use the vpnctl that came with the daemon."));
}

/// Whoever has the name of a socket could take a private key for himself.
std::optional<Problem> peerProblem(const QLocalSocket &socket)
{
    constexpr quint32 kRoot = 0;
    const quint32 user = userOfPeer(static_cast<int>(socket.socketDescriptor()));
    if (user == kRoot)
        return {};
    return noDaemon(QStringLiteral("The program at the other end of %1 is not root's, but that of "
                                   "user %2. Nothing was sent.")
                        .arg(socket.fullServerName())
                        .arg(user),
                    QStringLiteral("That is not the daemon. Tell who administers this computer."));
}

/// Connects to the main socket only to see whether somebody listens there.
bool tryMainSocket(QLocalSocket &socket)
{
    socket.connectToServer(shared::getIpcServiceUrl());
    return socket.waitForConnected(kTrialLimitMs);
}

/// Why an endpoint's socket could not be connected to: mostly because there is no daemon at all.
Problem endpointProblem(int endpoint)
{
    QLocalSocket socket;
    if (!tryMainSocket(socket))
        return mainSocketProblem(socket, socket.error());
    return {ExitCode::WrongUse, QStringLiteral("The daemon has no endpoint %1.").arg(endpoint),
            QStringLiteral("\"vpnctl connect\" prints the number of its endpoint; endpoints end "
                           "with the daemon that made them.")};
}

} // namespace

void VpnSession::checkLength(const QString &message, const VpnServerInformation &server)
{
    const qint64 length = frameLength(message, server);
    if (length > guard::kMaxFrameBytes) {
        throw wrongUse(QStringLiteral("The command with its record takes %1 bytes, and the daemon "
                                      "accepts %2 at most.")
                           .arg(length)
                           .arg(guard::kMaxFrameBytes),
                       QStringLiteral("Every character takes two. Leave out the certificates that "
                                      "the server does not need."));
    }
}

void VpnSession::checkLength(const Target &target)
{
    checkLength(connectCommand(target.transport), target.server);
}

VpnSession::VpnSession(const SessionLimits &limits, QObject *parent)
    : QObject(parent)
    , m_limits(limits)
{
    m_limit.setSingleShot(true);
    connect(&m_limit, &QTimer::timeout, this, &VpnSession::limitExceeded);
    connect(&m_heartbeat, &QTimer::timeout, this, &VpnSession::beat);
    watchSocket(&m_mainSocket);
    watchSocket(&m_endpointSocket);
}

VpnSession::~VpnSession()
{
    // The sockets close as they go, which is no news any more.
    m_phase = Phase::Over;
    m_mainSocket.disconnect(this);
    m_endpointSocket.disconnect(this);
}

void VpnSession::reach()
{
    connectMainSocket(&VpnSession::reportReached);
}

void VpnSession::openNewEndpoint()
{
    connectMainSocket(&VpnSession::createEndpoint);
}

void VpnSession::openEndpoint(int endpoint)
{
    connectEndpointSocket(endpoint);
}

void VpnSession::startTunnel(const Target &target)
{
    send(connectCommand(target.transport), target.server);
}

void VpnSession::stopTunnel()
{
    send(kDisconnect);
}

void VpnSession::send(const QString &message, const VpnServerInformation &server)
{
    if (m_phase == Phase::Open)
        m_service->vpn_command(message, server);
}

void VpnSession::keepAlive()
{
    if (m_phase != Phase::Open)
        return;
    beat();
    m_heartbeat.start(m_limits.heartbeatPeriod);
}

void VpnSession::beat()
{
    // The clock is that of the daemon's timer: it stands still for both while the machine sleeps.
    if (m_sinceHeartbeat.isValid() && m_sinceHeartbeat.hasExpired(m_limits.silence.count())) {
        m_heartbeat.stop();
        Q_EMIT lapsed(std::chrono::milliseconds(m_sinceHeartbeat.elapsed()));
        return;
    }
    m_service->server_slot(true);
    m_sinceHeartbeat.start();
}

void VpnSession::connectMainSocket(void (VpnSession::*next)())
{
    m_phase = Phase::Reaching;
    m_limit.start(m_limits.handshake);
    connect(&m_mainSocket, &QLocalSocket::connected, this, [this, next] {
        if (const auto problem = peerProblem(m_mainSocket))
            return fail(*problem);
        m_mainNode.addClientSideConnection(&m_mainSocket);
        m_main.reset(m_mainNode.acquire<IpcInterfaceReplica>());
        connect(m_main.data(), &QRemoteObjectReplica::stateChanged, this,
                [this, next](QRemoteObjectReplica::State state) {
                    if (state == QRemoteObjectReplica::SignatureMismatch)
                        fail(foreignInterface());
                    else if (state == QRemoteObjectReplica::Valid && m_phase == Phase::Reaching)
                        (this->*next)();
                });
    });
    m_mainSocket.connectToServer(shared::getIpcServiceUrl());
}

void VpnSession::reportReached()
{
    m_limit.stop();
    m_phase = Phase::Idle;
    Q_EMIT reached();
}

void VpnSession::createEndpoint()
{
    m_phase = Phase::Creating;
    m_limit.start(m_limits.handshake);
    const QRemoteObjectPendingReply<int> reply = m_main->createPrivilegedProcess();
    auto *watcher = new QRemoteObjectPendingCallWatcher(reply, this);
    connect(watcher, &QRemoteObjectPendingCallWatcher::finished, this,
            [this](QRemoteObjectPendingCallWatcher *call) {
                call->deleteLater();
                if (m_phase != Phase::Creating)
                    return;
                const int endpoint = call->returnValue().toInt();
                if (endpoint <= 0) {
                    fail({ExitCode::Failed,
                          QStringLiteral("The daemon could not make an endpoint."),
                          QStringLiteral("A socket file in /tmp may be in the way, or the daemon "
                                         "has no descriptor left; its log says which.")});
                    return;
                }
                Q_EMIT endpointCreated(endpoint);
                connectEndpointSocket(endpoint);
            });
}

void VpnSession::connectEndpointSocket(int endpoint)
{
    m_endpoint = endpoint;
    m_phase = Phase::Opening;
    m_limit.start(m_limits.handshake);
    connect(&m_endpointSocket, &QLocalSocket::connected, this, [this] {
        if (const auto problem = peerProblem(m_endpointSocket))
            return fail(*problem);
        m_endpointNode.addClientSideConnection(&m_endpointSocket);
        m_service.reset(m_endpointNode.acquire<ServiceInterfaceReplica>());
        connect(m_service.data(), &ServiceInterfaceReplica::vpn_cmd_result, this,
                &VpnSession::answered);
        connect(m_service.data(), &QRemoteObjectReplica::stateChanged, this,
                [this](QRemoteObjectReplica::State state) {
                    if (state == QRemoteObjectReplica::SignatureMismatch)
                        fail(foreignInterface());
                    else if (state == QRemoteObjectReplica::Valid && m_phase == Phase::Opening)
                        handleOpened();
                });
    });
    m_endpointSocket.connectToServer(shared::getIpcProcessUrl(endpoint));
}

void VpnSession::handleOpened()
{
    m_limit.stop();
    m_phase = Phase::Open;
    Q_EMIT opened();
}

void VpnSession::watchSocket(QLocalSocket *socket)
{
    connect(
        socket, &QLocalSocket::errorOccurred, this,
        [this, socket](QLocalSocket::LocalSocketError error) { handleSocketError(socket, error); });
    connect(socket, &QLocalSocket::disconnected, this, &VpnSession::handleClosed);
}

void VpnSession::handleSocketError(const QLocalSocket *socket, QLocalSocket::LocalSocketError error)
{
    if (error == QLocalSocket::PeerClosedError)
        handleClosed();
    else if (socket == &m_mainSocket)
        fail(mainSocketProblem(*socket, error));
    else
        fail(endpointProblem(m_endpoint));
}

void VpnSession::handleClosed()
{
    if (m_phase == Phase::Over)
        return;
    end();
    QTimer::singleShot(kEndingTime, this, [this] {
        QLocalSocket socket;
        Q_EMIT failed(tryMainSocket(socket) ? closedByDaemon() : daemonGone());
    });
}

void VpnSession::limitExceeded()
{
    fail({ExitCode::NoAnswer,
          QStringLiteral("The daemon accepts connections but did not answer within %1 seconds.")
              .arg(m_limits.handshake / 1s),
          QStringLiteral("It is very busy, stopped or hanging. Try again; if that does not help, "
                         "look at its log, and restart it as a last resort.")});
}

void VpnSession::end()
{
    m_phase = Phase::Over;
    m_limit.stop();
    m_heartbeat.stop();
}

void VpnSession::fail(const Problem &problem)
{
    if (m_phase == Phase::Over)
        return;
    end();
    Q_EMIT failed(problem);
}

QString commandOf(const QString &message)
{
    return QJsonDocument::fromJson(message.toUtf8())
        .object()
        .value(QLatin1String("cmd"))
        .toString();
}

} // namespace vpnctl
