/// The whole conversation of a client with the daemon, on one screen: ask for an endpoint, connect,
/// keep the tunnel alive for some seconds, disconnect.
///
///     minimal_client HOST UDP-PORT CA-FILE CERT-FILE KEY-FILE

#include "ipcurls.h"
#include "peeruser.h"
#include "rep_ipcinterface_replica.h"
#include "rep_serviceinterface_replica.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QFile>
#include <QtCore/QTimer>
#include <QtNetwork/QLocalSocket>

int main(int argc, char **argv)
{
    const auto fail = [](const char *text) {
        qCritical("%s", text);
        return 1;
    };
    QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments();
    if (words.size() != 6)
        return fail("usage: minimal_client HOST UDP-PORT CA-FILE CERT-FILE KEY-FILE");
    VpnServerInformation server;
    server.host = words[1];
    server.udpPort = words[2].toInt();
    QString *const texts[] = {&server.ca, &server.cert, &server.key};
    for (int i = 0; i < 3; ++i) {
        QFile file(words[3 + i]);
        if (!file.open(QIODevice::ReadOnly))
            return fail(qPrintable(QStringLiteral("cannot read ") + words[3 + i]));
        *texts[i] = QString::fromLatin1(file.readAll());
    }

    // Anybody may be faster than the daemon, and would be told the private key.
    const auto reachRoot = [](QLocalSocket &socket, const QString &name) -> const char * {
        socket.connectToServer(name);
        if (!socket.waitForConnected())
            return "the daemon is not running";
        return userOfPeer(int(socket.socketDescriptor())) == 0 ? nullptr
                                                               : "the socket is not root's";
    };
    // The daemon's main socket has one operation: make an endpoint for this client.
    QLocalSocket mainSocket;
    if (const char *problem = reachRoot(mainSocket, shared::getIpcServiceUrl()))
        return fail(problem);
    QRemoteObjectNode mainNode;
    mainNode.addClientSideConnection(&mainSocket);
    const QScopedPointer<IpcInterfaceReplica> ipc(mainNode.acquire<IpcInterfaceReplica>());
    if (!ipc->waitForSource(5'000))
        return fail("the daemon does not answer");
    QRemoteObjectPendingReply<int> endpoint = ipc->createPrivilegedProcess();
    if (!endpoint.waitForFinished(5'000) || endpoint.returnValue() < 0)
        return fail("the daemon makes no endpoint");

    // Everything else happens there.
    QLocalSocket socket;
    if (const char *problem = reachRoot(socket, shared::getIpcProcessUrl(endpoint.returnValue())))
        return fail(problem);
    QRemoteObjectNode node;
    node.addClientSideConnection(&socket);
    const QScopedPointer<ServiceInterfaceReplica> vpn(node.acquire<ServiceInterfaceReplica>());
    if (!vpn->waitForSource(5'000))
        return fail("the endpoint does not answer");

    QObject::connect(&socket, &QLocalSocket::disconnected, vpn.data(),
                     [&] { QCoreApplication::exit(fail("the daemon closed the connection")); });
    // From the first heartbeat on, 30 s without another one end the tunnel.
    QTimer heartbeat;
    QObject::connect(&heartbeat, &QTimer::timeout, vpn.data(), [&] { vpn->server_slot(true); });
    heartbeat.start(10'000);
    vpn->server_slot(true);

    const QString disconnectCommand = QStringLiteral(R"({"type":"openvpn","cmd":"disconnect"})");
    bool isConnected = false;
    const auto answered = [&](const QString &message, const OperationResult &result) {
        qInfo().noquote() << message << result.success << result.message;
        if (message.contains(QLatin1String(R"("cmd":"disconnect")")))
            return QCoreApplication::exit(isConnected ? 0 : 1);
        // A failed attempt may have left openvpn running, so that too ends with a disconnect.
        isConnected = result.success;
        QTimer::singleShot(isConnected ? 3'000 : 0, vpn.data(),
                           [&] { vpn->vpn_command(disconnectCommand, {}); });
    };
    QObject::connect(vpn.data(), &ServiceInterfaceReplica::vpn_cmd_result, vpn.data(), answered);
    vpn->vpn_command(QStringLiteral(R"({"type":"connect","cmd":"ovpnUdp"})"), server);
    return QCoreApplication::exec();
}
