#pragma once

#include "operationresult.h"
#include "problem.h"
#include "sessionlimits.h"
#include "target.h"
#include "vpnserverinformation.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QTimer>
#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectNode>

#include <chrono>
#include <optional>

class IpcInterfaceReplica;
class ServiceInterfaceReplica;

namespace vpnctl {

/// The conversation with the daemon: main socket, endpoint, commands, heartbeat. One object holds
/// one conversation. Nothing here waits; what comes of a call is told by signals, from the event
/// loop or from within the call.
class VpnSession : public QObject
{
    Q_OBJECT

public:
    /// The daemon closes the connection at a longer frame than it allows, so check before sending.
    /// @throws Problem when the command @p message with the record @p server is too long.
    static void checkLength(const QString &message, const VpnServerInformation &server);

    /// As above, for the command that startTunnel() sends.
    static void checkLength(const Target &target);

    explicit VpnSession(const SessionLimits &limits, QObject *parent = nullptr);
    ~VpnSession() override;

    /// Goes as far as the main socket's interface, which leaves nothing behind in the daemon.
    /// Then reached() follows, or failed().
    void reach();

    /// Has the daemon make an endpoint and connects to it: endpointCreated() and opened() follow,
    /// or failed(). The endpoint lasts as long as the daemon.
    void openNewEndpoint();

    /// Connects to an endpoint that is there: opened() follows, or failed().
    void openEndpoint(int endpoint);

    /// Starts a tunnel; the answer comes by answered(). Call only after opened(), like all below.
    void startTunnel(const Target &target);

    /// Takes the endpoint's tunnel down, and ends an attempt to connect that is under way; each
    /// command is answered.
    void stopTunnel();

    /// Sends a command as it stands.
    void send(const QString &message, const VpnServerInformation &server = {});

    /// Calls the heartbeat, now and again and again. From the first one on the daemon takes the
    /// tunnel down when it hears none for 30 s, without an answer; then lapsed() tells.
    void keepAlive();

Q_SIGNALS:
    void reached();
    void endpointCreated(int endpoint);
    void opened();

    /// An answer on this endpoint, whoever gave the command.
    /// @param message JSON; commandOf() tells which command it is about.
    void answered(const QString &message, const OperationResult &result);

    /// This process was stopped or held up for longer than SessionLimits::silence. The heartbeat
    /// ends with that.
    /// @param silence since the last one.
    void lapsed(std::chrono::milliseconds silence);

    /// The conversation is over; nothing follows.
    void failed(const vpnctl::Problem &problem);

private:
    enum class Phase { Idle, Reaching, Creating, Opening, Open, Over };

    void connectMainSocket(void (VpnSession::*next)());
    void reportReached();
    void createEndpoint();
    void connectEndpointSocket(int endpoint);
    void watchSocket(QLocalSocket *socket);
    void handleSocketError(const QLocalSocket *socket, QLocalSocket::LocalSocketError error);
    void beat();
    void handleClosed();
    void handleOpened();
    void limitExceeded();
    void end();
    void fail(const Problem &problem);

    const SessionLimits m_limits;
    // Destroyed in reverse order: nodes and replicas before the sockets that carry them.
    QLocalSocket m_mainSocket;
    QLocalSocket m_endpointSocket;
    QRemoteObjectNode m_mainNode;
    QRemoteObjectNode m_endpointNode;
    QScopedPointer<IpcInterfaceReplica> m_main;
    QScopedPointer<ServiceInterfaceReplica> m_service;
    QTimer m_limit;
    QTimer m_heartbeat;
    QElapsedTimer m_sinceHeartbeat;
    Phase m_phase = Phase::Idle;
    int m_endpoint = 0;
};

/// @param message the first argument of VpnSession::answered().
/// @return "connect" or "disconnect"; empty when the text says neither.
QString commandOf(const QString &message);

} // namespace vpnctl
