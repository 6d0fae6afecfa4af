#include "localserver.h"

#include "guardedlocalserver.h"
#include "hostconnection.h"
#include "ipcurls.h"

#include <QtCore/QDebug>
#include <QtNetwork/QLocalSocket>

LocalServer::LocalServer(QObject *parent)
    : QObject(parent)
    , m_server(new GuardedLocalServer(RemoteInterface::ipcInterface(), this))
    , m_ipcServer(this)
{
    if (!m_server->listenExclusively(shared::getIpcServiceUrl())) {
        qDebug() << QStringLiteral("Unable to start the server: %1. LocalServer")
                        .arg(m_server->errorString());
        return;
    }

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
    addHostConnection(m_serverNode, m_server->nextPendingConnection());
    if (!m_isRemotingEnabled) {
        m_isRemotingEnabled = true;
        m_serverNode.enableRemoting(&m_ipcServer);
    }
}
