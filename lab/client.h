#pragma once

#include "rep_ipcinterface_replica.h"
#include "rep_serviceinterface_replica.h"

#include <QtCore/QScopedPointer>
#include <QtCore/QVector>
#include <QtNetwork/QLocalSocket>

#include <memory>
#include <vector>

/// A client as it is in the field: a connection to the main socket, one to an endpoint, a replica
/// on each.
class Client : public QObject
{
    Q_OBJECT

public:
    struct Answer
    {
        QString message;
        OperationResult result;
    };

    Client();
    ~Client() override;

    /// Connects to the main socket and waits for the interface.
    bool connectToMainSocket();

    /// Asks for an endpoint; the event loop turns meanwhile.
    /// @return its number, -1 when refused, -2 when no answer came in time.
    int createEndpoint();

    /// Connects to an endpoint and waits for the interface.
    bool attach(int endpoint);

    /// All three of the above.
    bool attachToNewEndpoint();

    /// Sends a command as it stands.
    void send(const QString &message, const VpnServerInformation &server = {});
    void connectUdp(const VpnServerInformation &server);
    void connectTcp(const VpnServerInformation &server);
    void disconnectTunnel();
    void heartbeat(bool state = true);

    /// @return the answers so far, in the order they came.
    const QVector<Answer> &answers() const { return m_answers; }

    /// @return the key of the n-th answer, "success" for a success, "none" when there is none.
    QString outcome(int n = 0) const;

    int endpoint() const { return m_endpoint; }
    QLocalSocket &endpointSocket() { return m_endpointSocket; }
    QLocalSocket &mainSocket() { return m_mainSocket; }

private:
    // The nodes go first: they close what the sockets still carry.
    QLocalSocket m_mainSocket;
    QLocalSocket m_endpointSocket;
    QRemoteObjectNode m_mainNode;
    QRemoteObjectNode m_endpointNode;
    QScopedPointer<IpcInterfaceReplica> m_main;
    QScopedPointer<ServiceInterfaceReplica> m_service;
    QVector<Answer> m_answers;
    int m_endpoint = 0;
};

using Clients = std::vector<std::unique_ptr<Client>>;

/// @return so many clients, each attached to a new endpoint; ends the program when one is not.
Clients attachedClients(int number);
