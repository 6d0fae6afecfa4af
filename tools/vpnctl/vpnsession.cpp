#include "vpnsession.h"

#include "guardlimits.h"
#include "ipcurls.h"
#include "peeruser.h"
#include "rep_ipcinterface_replica.h"
#include "rep_serviceinterface_replica.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <optional>

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

/// To connect to the main socket only to see whether somebody listens there.
constexpr int kTrialLimitMs = 15'000;

/// A daemon that ends closes its sockets one by one; so much later all are closed.
constexpr auto kEndingTime = 100ms;

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
                QStringLiteral("The daemon is not running: there is no socket %1.").arg(name),
                QStringLiteral("Start it: sudo launchctl bootstrap system "
                               "/Library/LaunchDaemons/TalvexVpnd.plist")};
    case QLocalSocket::ConnectionRefusedError:
        return {
            ExitCode::NoDaemon,
            QStringLiteral("The daemon is not running: it left the socket %1 behind.").arg(name),
            QStringLiteral("Have launchd start it anew: sudo launchctl kickstart -k "
                           "system/com.talvex.talvexvpnd. Before starting it by hand, remove "
                           "the file (sudo rm '%1'), or it cannot listen.")
                .arg(name)};
    default:
        return {ExitCode::NoDaemon,
                QStringLiteral("Cannot connect to the daemon's socket %1: %2.")
                    .arg(name, socket.errorString()),
                QStringLiteral("Every user should be allowed to read and write it.")};
    }
}

/// Whoever has the name of a socket could take a private key for himself.
std::optional<Problem> peerProblem(const QLocalSocket &socket)
{
    constexpr quint32 kRoot = 0;
    const quint32 user = userOfPeer(static_cast<int>(socket.socketDescriptor()));
    if (user == kRoot)
        return {};
    return Problem{
        ExitCode::NoDaemon,
        QStringLiteral("The program at the other end of %1 is not root's, but that of user %2. "
                       "Nothing was sent.")
            .arg(socket.fullServerName())
            .arg(user),
        QStringLiteral("That is not the daemon. Tell who administers this computer.")};
}

} // namespace

QString connectMessage(Transport transport)
{
    return transport == Transport::Udp ? QStringLiteral(R"({"type":"connect","cmd":"ovpnUdp"})")
                                       : QStringLiteral(R"({"type":"connect","cmd":"ovpnTcp"})");
}

QString disconnectMessage()
{
    return QStringLiteral(R"({"type":"openvpn","cmd":"disconnect"})");
}

void checkLength(const QString &message, const VpnServerInformation &server)
{
    qint64 length = kBytesBesideTexts;
    for (const QString &text :
         {message, server.name, server.info, server.host, server.ca, server.key, server.cert})
        length += text.size() * qint64(sizeof(QChar));
    if (length > guard::kMaxFrameBytes) {
        throw wrongUse(QStringLiteral("The command with its record takes %1 bytes, and the daemon "
                                      "accepts %2 at most.")
                           .arg(length)
                           .arg(guard::kMaxFrameBytes),
                       QStringLiteral("Every character takes two. Leave out the certificates that "
                                      "the server does not need."));
    }
}

VpnSession::VpnSession(const Limits &limits, QObject *parent)
    : QObject(parent)
{
    m_limit.setSingleShot(true);
    m_limit.setInterval(limits.handshake);
    connect(&m_limit, &QTimer::timeout, this, [this] {
        fail({ExitCode::NoAnswer,
              QStringLiteral("The daemon accepts connections but did not answer within %1 seconds.")
                  .arg(m_limit.intervalAsDuration() / 1s),
              QStringLiteral("It is very busy, stopped or hanging. Try again; if that does not "
                             "help, look at its log, and restart it as a last resort.")});
    });
    m_heartbeat.setInterval(limits.heartbeatPeriod);
    connect(&m_heartbeat, &QTimer::timeout, this, [this] { m_service.replica->server_slot(true); });
}

VpnSession::~VpnSession()
{
    // The sockets close as they go, which is no news any more.
    m_main.socket.disconnect(this);
    m_service.socket.disconnect(this);
}

void VpnSession::reach()
{
    open(m_main, shared::getIpcServiceUrl(), &VpnSession::reached);
}

void VpnSession::openNewEndpoint()
{
    open(m_main, shared::getIpcServiceUrl(), &VpnSession::createEndpoint);
}

void VpnSession::openEndpoint(int endpoint)
{
    m_endpoint = endpoint;
    open(m_service, shared::getIpcProcessUrl(endpoint), &VpnSession::opened);
}

void VpnSession::send(const QString &message, const VpnServerInformation &server)
{
    if (!m_isOver)
        m_service.replica->vpn_command(message, server);
}

void VpnSession::keepAlive()
{
    m_service.replica->server_slot(true);
    m_heartbeat.start();
}

template<typename Replica>
void VpnSession::open(Link<Replica> &link, const QString &name, void (VpnSession::*next)())
{
    QLocalSocket &socket = link.socket;
    connect(&socket, &QLocalSocket::errorOccurred, this, [this](auto error) {
        if (error != QLocalSocket::PeerClosedError)
            fail(connectionProblem(
                wrongUse(QStringLiteral("The daemon has no endpoint %1.").arg(m_endpoint),
                         QStringLiteral("\"vpnctl status\" lists those that have a socket."))));
    });
    connect(&socket, &QLocalSocket::disconnected, this, [this] {
        QTimer::singleShot(kEndingTime, this, [this] {
            if (!m_isOver)
                fail(connectionProblem(
                    {ExitCode::NoDaemon,
                     QStringLiteral("The daemon closed the connection; its log says why."),
                     QStringLiteral("It is running. It refuses connections when it has no "
                                    "descriptor left, and closes those that go beyond its "
                                    "limits.")}));
        });
    });
    connect(&socket, &QLocalSocket::connected, this, [this, &link, next] {
        if (const auto problem = peerProblem(link.socket))
            return fail(*problem);
        link.node.addClientSideConnection(&link.socket);
        link.replica.reset(link.node.template acquire<Replica>());
        if constexpr (std::is_same_v<Replica, ServiceInterfaceReplica>)
            connect(link.replica.data(), &Replica::vpn_cmd_result, this, &VpnSession::answered);
        connect(link.replica.data(), &Replica::stateChanged, this, [this, next](auto state) {
            if (state == QRemoteObjectReplica::SignatureMismatch)
                fail({ExitCode::NoDaemon,
                      QStringLiteral("What listens on the daemon's socket speaks another "
                                     "interface."),
                      QStringLiteral("Use the vpnctl that came with the daemon.")});
            if (state != QRemoteObjectReplica::Valid || m_isOver)
                return;
            m_limit.stop();
            (this->*next)();
        });
    });
    m_limit.start();
    socket.connectToServer(name);
}

void VpnSession::createEndpoint()
{
    m_limit.start();
    auto *call =
        new QRemoteObjectPendingCallWatcher(m_main.replica->createPrivilegedProcess(), this);
    connect(call, &QRemoteObjectPendingCallWatcher::finished, this, [this, call] {
        const int endpoint = call->returnValue().toInt();
        if (endpoint <= 0) {
            return fail({ExitCode::Failed, QStringLiteral("The daemon could not make an endpoint."),
                         QStringLiteral("A socket file in /tmp may be in the way, or the daemon "
                                        "has no descriptor left; its log says which.")});
        }
        if (m_isOver)
            return;
        Q_EMIT endpointCreated(endpoint);
        openEndpoint(endpoint);
    });
}

void VpnSession::fail(const Problem &problem)
{
    if (m_isOver)
        return;
    m_isOver = true;
    m_limit.stop();
    m_heartbeat.stop();
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
