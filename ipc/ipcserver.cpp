#include "ipcserver.h"

#include "checkedconnection.h"
#include "descriptorbudget.h"
#include "guardlimits.h"
#include "ipcurls.h"
#include "serviceinterfacemanager.h"
#include "usershare.h"

#include <QtCore/QDebug>
#include <QtNetwork/QLocalServer>
#include <QtRemoteObjects/QRemoteObjectHost>

namespace {

/// @return why the server cannot serve; empty when it listens.
QString problemOfListening(QLocalServer &server, const QString &name, quint32 user)
{
    if (!UserShare::isLeftFor(user))
        return QStringLiteral("its user has too many");
    server.setSocketOptions(QLocalServer::WorldAccessOption);
    if (!server.listen(name))
        return server.errorString();
    if (!vpncore::leavesDescriptors(static_cast<int>(server.socketDescriptor()),
                                    guard::kEndpointReserve))
        return QStringLiteral("too few descriptors are left");
    return {};
}

} // namespace

IpcServer::ProcessDescriptor::ProcessDescriptor(const QSharedPointer<CommandTotals> &totals,
                                                quint32 user, QObject *parent)
    : owner(user)
{
    serverNode.reset(new QRemoteObjectHost(parent));
    ipcProcess.reset(new ServiceInterfaceManager(totals, user, parent));
    localServer.reset(new QLocalServer(parent));
}

IpcServer::IpcServer(QObject *parent)
    : IpcInterfaceSource(parent)
    , m_totals(QSharedPointer<CommandTotals>::create())
{
}

int IpcServer::createPrivilegedProcess()
{
    ++m_localSocketsCounter;
    const quint32 user = CheckedConnection::callingUser();
    ProcessDescriptor descriptor(m_totals, user, this);
    const QString problem = problemOfListening(
        *descriptor.localServer, shared::getIpcProcessUrl(m_localSocketsCounter), user);
    if (!problem.isEmpty()) {
        qDebug() << QStringLiteral("Unable to start the server: %1. IpcServer").arg(problem);
        return -1;
    }
    descriptor.share.reset(new UserShare(user));
    serve(descriptor);
    return m_localSocketsCounter;
}

/// The first three connections hold copies of the descriptor. When this object is deleted, they are
/// removed newest first. So those that log have gone before the last copy, and nothing is logged.
void IpcServer::serve(const ProcessDescriptor &descriptor)
{
    const QLocalServer *server = descriptor.localServer.data();
    const QRemoteObjectHost *host = descriptor.serverNode.data();
    connect(server, &QLocalServer::newConnection, this, [descriptor] {
        qDebug() << "IpcServer new connection";
        if (!CheckedConnection::accept(*descriptor.localServer, *descriptor.serverNode,
                                       ServiceInterfaceSource::staticMetaObject, descriptor.owner))
            return;
        // Fails from the second connection on, since the object is published already. Asking every
        // time, and Qt's warning, are wanted.
        descriptor.serverNode->enableRemoting(descriptor.ipcProcess.data());
    });
    connect(server, &QObject::destroyed, this, [descriptor] { qDebug() << "IpcServer destroyed"; });
    connect(host, &QRemoteObjectHost::error, this, [descriptor](QRemoteObjectNode::ErrorCode code) {
        qDebug() << "QRemoteObjectHost::error" << code;
    });
    connect(host, &QObject::destroyed, this, [] { qDebug() << "QRemoteObjectHost::destroyed"; });
    connect(host, &QRemoteObjectHost::remoteObjectRemoved, this,
            [] { qDebug() << "QRemoteObjectHost::remoteObjectRemoved"; });
    connect(host, &QRemoteObjectHost::heartbeatIntervalChanged, this,
            [] { qDebug() << "QRemoteObjectHost::heartbeatIntervalChanged"; });
}
