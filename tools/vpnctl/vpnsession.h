#pragma once

#include "operationresult.h"
#include "options.h"
#include "problem.h"
#include "vpnserverinformation.h"

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QTimer>
#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectNode>

class IpcInterfaceReplica;
class ServiceInterfaceReplica;

namespace vpnctl {

/// @return the command that brings a tunnel up, as JSON.
QString connectMessage(Transport transport);

/// @return the command that takes the endpoint's tunnel down, and ends an attempt that is under
///         way, as JSON.
QString disconnectMessage();

/// @param message the first argument of VpnSession::answered().
/// @return "connect" or "disconnect"; empty when the text says neither.
QString commandOf(const QString &message);

/// The daemon closes the connection at a longer frame than it allows, so check before sending.
/// @throws Problem when the command @p message with the record @p server is too long.
void checkLength(const QString &message, const VpnServerInformation &server);

/// The conversation with the daemon: main socket, endpoint, commands, heartbeat. One object holds
/// one conversation. Nothing here waits; what comes of a call is told by signals, from the event
/// loop or from within the call.
class VpnSession : public QObject
{
    Q_OBJECT

public:
    explicit VpnSession(const Limits &limits, QObject *parent = nullptr);
    ~VpnSession() override;

    /// Goes as far as the main socket's interface, which leaves nothing behind in the daemon.
    /// Then reached() follows, or failed().
    void reach();

    /// Has the daemon make an endpoint and connects to it: endpointCreated() and opened() follow,
    /// or failed(). The endpoint lasts as long as the daemon.
    void openNewEndpoint();

    /// Connects to an endpoint that is there: opened() follows, or failed().
    void openEndpoint(int endpoint);

    /// Sends a command as it stands; the answer, if any, comes by answered(). Call only after
    /// opened(), like keepAlive().
    void send(const QString &message, const VpnServerInformation &server = {});

    /// Calls the heartbeat, now and again and again. From the first one on the daemon takes the
    /// tunnel down when it hears none for 30 s, without an answer.
    void keepAlive();

Q_SIGNALS:
    void reached();
    void endpointCreated(int endpoint);
    void opened();

    /// An answer on this endpoint, whoever gave the command.
    /// @param message JSON; commandOf() tells which command it is about.
    void answered(const QString &message, const OperationResult &result);

    /// The conversation is over; nothing follows.
    void failed(const vpnctl::Problem &problem);

private:
    /// A socket of the daemon, and the object behind it. Destroyed in reverse order: nodes and
    /// replicas before the socket that carries them.
    template<typename Replica>
    struct Link
    {
        QLocalSocket socket;
        QRemoteObjectNode node;
        QScopedPointer<Replica> replica;
    };

    template<typename Replica>
    void open(Link<Replica> &link, const QString &name, void (VpnSession::*next)());
    void createEndpoint();
    void fail(const Problem &problem);

    Link<IpcInterfaceReplica> m_main;
    Link<ServiceInterfaceReplica> m_service;
    QTimer m_limit;
    QTimer m_heartbeat;
    int m_endpoint = 0;
    bool m_isOver = false;
};

} // namespace vpnctl
