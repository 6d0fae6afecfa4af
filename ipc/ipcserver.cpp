#include "ipcserver.h"

#include "guardedlocalserver.h"
#include "hostconnection.h"
#include "ipcurls.h"
#include "serviceinterfacemanager.h"

#include <QtCore/QDebug>
#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectHost>

IpcServer::ProcessDescriptor::ProcessDescriptor(const QSharedPointer<CommandTotals> &totals,
                                                QObject *parent)
{
    serverNode.reset(new QRemoteObjectHost(parent));
    ipcProcess.reset(new ServiceInterfaceManager(totals, parent));
    localServer.reset(new GuardedLocalServer(RemoteInterface::serviceInterface(), parent));
}

IpcServer::IpcServer(QObject *parent)
    : IpcInterfaceSource(parent)
    , m_totals(QSharedPointer<CommandTotals>::create())
{
}

IpcServer::~IpcServer() = default;

int IpcServer::createPrivilegedProcess()
{
    ++m_localSocketsCounter;
    const ProcessDescriptor descriptor(m_totals, this);
    descriptor.localServer->setSocketOptions(QLocalServer::WorldAccessOption);
    if (!descriptor.localServer->listen(shared::getIpcProcessUrl(m_localSocketsCounter))) {
        qDebug() << QStringLiteral("Unable to start the server: %1. IpcServer")
                        .arg(descriptor.localServer->errorString());
        return -1;
    }

    // The connection's own sender must not be kept alive by it, so it holds plain pointers; what
    // they point to lives in m_descriptors.
    connect(descriptor.localServer.data(), &QLocalServer::newConnection, this,
            [server = descriptor.localServer.data(), host = descriptor.serverNode.data(),
             manager = descriptor.ipcProcess.data()] {
                qDebug() << "IpcServer new connection";
                addHostConnection(*host, server->nextPendingConnection());
                // Fails from the second connection on, since the object is published already.
                // Asking every time, and Qt's warning, are wanted.
                host->enableRemoting(manager);
            });
    logLifeOf(descriptor);
    m_descriptors.push_back(descriptor);
    return m_localSocketsCounter;
}

void IpcServer::logLifeOf(const ProcessDescriptor &descriptor)
{
    const QRemoteObjectHost *host = descriptor.serverNode.data();
    connect(descriptor.localServer.data(), &QObject::destroyed, this,
            [] { qDebug() << "IpcServer destroyed"; });
    connect(host, &QRemoteObjectHost::error, this, [](QRemoteObjectNode::ErrorCode code) {
        qDebug() << "QRemoteObjectHost::error" << code;
    });
    connect(host, &QObject::destroyed, this, [] { qDebug() << "QRemoteObjectHost::destroyed"; });
    connect(host, &QRemoteObjectHost::remoteObjectRemoved, this,
            [] { qDebug() << "QRemoteObjectHost::remoteObjectRemoved"; });
    connect(host, &QRemoteObjectHost::heartbeatIntervalChanged, this,
            [] { qDebug() << "QRemoteObjectHost::heartbeatIntervalChanged"; });
}
