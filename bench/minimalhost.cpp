/// The baseline for what Remote Objects itself costs: the smallest program that serves the
/// interface of an endpoint and writes the same log lines as the daemon.
///
///     minimalhost SOCKET

#include "rep_serviceinterface_source.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtNetwork/QLocalServer>
#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectHost>

namespace {

class MinimalService : public ServiceInterfaceSource
{
public:
    void server_slot(bool clientState) override
    {
        qDebug() << "Replica state is " << (clientState ? "true" : "false");
    }

    /// Logs what the daemon logs for a command of the type "nothing", without reading it.
    void vpn_command(const QString &, const VpnServerInformation &) override
    {
        qDebug() << "Command status " << QStringLiteral("nothing");
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    MinimalService service;
    QRemoteObjectHost host;
    QLocalServer server;
    if (argc != 2 || !server.listen(QString::fromLocal8Bit(argv[1])))
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
