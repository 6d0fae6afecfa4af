/// The baseline for what Remote Objects itself costs: the smallest program that serves the
/// interface of an endpoint, writes the same log lines as the daemon, and watches for heartbeats
/// with a timer as it does.
///
///     minimalhost read|unread SOCKET

#include "rep_serviceinterface_source.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTimer>
#include <QtNetwork/QLocalServer>
#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectHost>

namespace {

class MinimalService : public ServiceInterfaceSource
{
public:
    explicit MinimalService(bool readsCommands)
        : m_readsCommands(readsCommands)
    {
    }

    void server_slot(bool clientState) override
    {
        qDebug() << "Replica state is " << (clientState ? "true" : "false");
        m_timer.stop();
        m_timer.start(30'000);
    }

    void vpn_command(const QString &message, const VpnServerInformation &) override
    {
        const auto readType = [&message] {
            return QJsonDocument::fromJson(message.toUtf8())
                .object()
                .value(QLatin1String("type"))
                .toString();
        };
        qDebug() << "Command status " << (m_readsCommands ? readType() : m_unreadType);
    }

private:
    QTimer m_timer;
    const bool m_readsCommands;
    const QString m_unreadType = QStringLiteral("nothing");
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc != 3)
        return 2;
    MinimalService service(QLatin1String(argv[1]) == QLatin1String("read"));
    QRemoteObjectHost host;
    QLocalServer server;
    const QString socketName = QString::fromLocal8Bit(argv[2]);
    QLocalServer::removeServer(socketName); // of a host that was killed
    if (!server.listen(socketName))
        return 1;
    QObject::connect(&server, &QLocalServer::newConnection, &host,
                     [&, isEnabled = false]() mutable {
                         host.addHostSideConnection(server.nextPendingConnection());
                         // A host without a URL can publish only when it has had a connection.
                         if (!isEnabled)
                             isEnabled = host.enableRemoting(&service);
                     });
    return QCoreApplication::exec();
}
