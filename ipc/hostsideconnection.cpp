#include "ipc/hostsideconnection.h"

#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectHost>

void addHostSideConnection(QRemoteObjectHost &host, QLocalSocket *socket)
{
    host.addHostSideConnection(socket);
    // The host has made a child that stands for the connection. Its class is private to Qt; its
    // signal, which makes the host clean up, can be reached by name.
    QObject::connect(socket, SIGNAL(disconnected()), host.children().constLast(),
                     SIGNAL(disconnected()), Qt::UniqueConnection);
}
