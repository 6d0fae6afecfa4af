#include "hostconnection.h"

#include <QtCore/QDebug>
#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectHost>

namespace {

/// @return the object through which a host talks to the newest of its connections. Its class is
///         Qt's own, and known by nothing but its name.
QObject *newestDeviceOf(const QRemoteObjectHostBase &host)
{
    const QObjectList &children = host.children();
    for (auto child = children.rbegin(); child != children.rend(); ++child) {
        if ((*child)->inherits("IoDeviceBase"))
            return *child;
    }
    return nullptr;
}

} // namespace

void addHostConnection(QRemoteObjectHostBase &host, QLocalSocket *socket)
{
    const QObject *former = newestDeviceOf(host);
    host.addHostSideConnection(socket);
    QObject *device = newestDeviceOf(host);
    if (!device || device == former) {
        qWarning() << "The host will not learn that a connection has ended, so it is kept";
        return;
    }
    // Qt means to connect these two, but looks the signal up under a wrong name.
    QObject::connect(socket, SIGNAL(disconnected()), device, SIGNAL(disconnected()));
    QObject::connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
}
