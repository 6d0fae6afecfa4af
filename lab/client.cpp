#include "client.h"

#include "ipcurls.h"

namespace {

constexpr int kConnectLimitMs = 10'000;

bool connectSocket(QLocalSocket &socket, const QString &name)
{
    socket.connectToServer(name);
    return socket.waitForConnected(kConnectLimitMs);
}

} // namespace

Client::Client() = default;
Client::~Client() = default;

bool Client::connectToMainSocket()
{
    if (!connectSocket(m_mainSocket, shared::getIpcServiceUrl()))
        return false;
    m_mainNode.addClientSideConnection(&m_mainSocket);
    m_main.reset(m_mainNode.acquire<IpcInterfaceReplica>());
    return m_main->waitForSource(kConnectLimitMs);
}

int Client::createEndpoint()
{
    QRemoteObjectPendingReply<int> reply = m_main->createPrivilegedProcess();
    return reply.waitForFinished(kConnectLimitMs) ? reply.returnValue() : -2;
}

bool Client::attach(int endpoint)
{
    m_endpoint = endpoint;
    if (!connectSocket(m_endpointSocket, shared::getIpcProcessUrl(endpoint)))
        return false;
    m_endpointNode.addClientSideConnection(&m_endpointSocket);
    m_service.reset(m_endpointNode.acquire<ServiceInterfaceReplica>());
    connect(m_service.data(), &ServiceInterfaceReplica::vpn_cmd_result, this,
            [this](const QString &message, const OperationResult &result) {
                m_answers.append({message, result});
            });
    return m_service->waitForSource(kConnectLimitMs);
}

bool Client::attachToNewEndpoint()
{
    if (!connectToMainSocket())
        return false;
    const int endpoint = createEndpoint();
    return endpoint > 0 && attach(endpoint);
}

void Client::send(const QString &message, const VpnServerInformation &server)
{
    m_service->vpn_command(message, server);
}

void Client::connectUdp(const VpnServerInformation &server)
{
    send(R"({"type":"connect","cmd":"ovpnUdp"})", server);
}

void Client::connectTcp(const VpnServerInformation &server)
{
    send(R"({"type":"connect","cmd":"ovpnTcp"})", server);
}

void Client::disconnectTunnel()
{
    send(R"({"type":"openvpn","cmd":"disconnect"})");
}

void Client::heartbeat(bool state)
{
    m_service->server_slot(state);
}

QString Client::outcome(int n) const
{
    if (n >= m_answers.size())
        return "none";
    const OperationResult &result = m_answers[n].result;
    return result.success ? "success" : result.message;
}

Clients attachedClients(int number)
{
    Clients clients;
    for (int i = 0; i < number; ++i) {
        clients.push_back(std::make_unique<Client>());
        if (!clients.back()->attachToNewEndpoint())
            qFatal("there is no endpoint for a client");
    }
    return clients;
}
