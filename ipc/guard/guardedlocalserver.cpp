#include "guardedlocalserver.h"

#include "guardedlocalsocket.h"
#include "descriptors.h"

#include <QtCore/QDebug>

#include <sys/stat.h>
#include <unistd.h>

GuardedLocalServer::GuardedLocalServer(const RemoteInterface &interface, QObject *parent)
    : QLocalServer(parent)
    , m_interface(interface)
{
}

bool GuardedLocalServer::listenExclusively(const QString &name)
{
    // With WorldAccessOption, Qt renames the new socket over whatever has the name, the socket of
    // a live server included. Without it, a taken name is an error, and the umask lets everybody
    // in just as the option would.
    const mode_t previousMask = ::umask(0);
    const bool isListening = QLocalServer::listen(name);
    ::umask(previousMask);
    return isListening;
}

bool GuardedLocalServer::listen(const QString &name)
{
    m_isShortOfDescriptors = !vpncore::canOpenDescriptors(kEndpointReserve);
    return !m_isShortOfDescriptors && QLocalServer::listen(name);
}

QString GuardedLocalServer::errorString() const
{
    if (m_isShortOfDescriptors)
        return QStringLiteral("too few descriptors are left");
    return QLocalServer::errorString();
}

bool GuardedLocalServer::hasPendingConnections() const
{
    return !m_pendingConnections.isEmpty();
}

QLocalSocket *GuardedLocalServer::nextPendingConnection()
{
    return m_pendingConnections.isEmpty() ? nullptr : m_pendingConnections.dequeue();
}

void GuardedLocalServer::incomingConnection(quintptr socketDescriptor)
{
    if (!vpncore::canOpenDescriptors(kConnectionReserve)) {
        ::close(static_cast<int>(socketDescriptor));
        qWarning() << "Connection refused: too few descriptors are left";
        return;
    }
    auto *socket = new GuardedLocalSocket(m_interface, this);
    socket->setSocketDescriptor(static_cast<qintptr>(socketDescriptor));
    m_pendingConnections.enqueue(socket);
    Q_EMIT newConnection();
}
