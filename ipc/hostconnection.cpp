#include "ipc/hostconnection.h"

#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectHost>

#include <cstring>

void addHostSideConnection(QRemoteObjectHost *host, QLocalSocket *socket)
{
    host->addHostSideConnection(socket);

    // What the host made for the connection, its youngest child, has a private type with a public
    // signal. The host listens to that one, but nobody emits it.
    QObject *device = host->children().constLast();
    if (std::strcmp(device->metaObject()->className(), "ExternalIoDevice") != 0)
        return;
    QObject::connect(socket, &QLocalSocket::disconnected, device,
                     [device] { QMetaObject::invokeMethod(device, "disconnected"); });
}
