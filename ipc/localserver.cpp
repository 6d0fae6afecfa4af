#include "localserver.h"

#include "checkedconnection.h"
#include "ipcurls.h"
#include "socketname.h"

#include <QtCore/QDebug>
#include <QtNetwork/QLocalServer>

#include <utility>

LocalServer::LocalServer(QObject *parent)
    : QObject(parent)
    , m_ipcServer(this)
{
    m_server.reset(new QLocalServer(this));
    m_server->setSocketOptions(QLocalServer::WorldAccessOption);
    const QString name = shared::getIpcServiceUrl();
    // With the option, Qt renames the new socket over whatever has the name, a live server's
    // included. Without it, Qt says of such a name what is said here.
    const bool isTaken = socketname::isTakenByOwnUser(name);
    if (isTaken || !m_server->listen(name)) {
        qDebug() << QStringLiteral("Unable to start the server: %1. LocalServer")
                        .arg(isTaken ? QStringLiteral("QLocalServer::listen: Address in use")
                                     : m_server->errorString());
        return;
    }
    socketname::warnUnlessOwnSocket(name);

    // Only the first text says what happened; the ends of the others are wanted as they are.
    connect(m_server.data(), &QLocalServer::newConnection, this, &LocalServer::acceptConnection);
    connect(m_server.data(), &QObject::destroyed, this,
            [] { qDebug() << "LocalServer destroyed"; });
    connect(&m_serverNode, &QRemoteObjectHost::remoteObjectRemoved, this,
            [] { qDebug() << " QRemoteObjectHost::remoteObjectRemoved LocalServer destroyed"; });
    connect(&m_serverNode, &QObject::destroyed, this,
            [] { qDebug() << " QRemoteObjectHost::destroyed LocalServer destroyed"; });
    connect(&m_serverNode, &QRemoteObjectHost::error, this,
            [] { qDebug() << " QRemoteObjectHost::error LocalServer destroyed"; });
    connect(&m_serverNode, &QRemoteObjectHost::heartbeatIntervalChanged, this, [] {
        qDebug() << " QRemoteObjectHost::heartbeatIntervalChanged LocalServer destroyed";
    });
}

LocalServer::~LocalServer()
{
    qDebug() << "Local server stopped";
}

void LocalServer::acceptConnection()
{
    qDebug() << "LocalServer new connection";
    if (!CheckedConnection::accept(*m_server, m_serverNode, IpcInterfaceSource::staticMetaObject))
        return;
    if (!std::exchange(m_isRemotingEnabled, true))
        m_serverNode.enableRemoting(&m_ipcServer);
}
