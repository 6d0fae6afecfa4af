#pragma once

#include "rep_ipcinterface_source.h"

#include <QtCore/QSharedPointer>

#include <vector>

class CommandTotals;
class GuardedLocalServer;
class QRemoteObjectHost;
class ServiceInterfaceManager;

/// Opens an endpoint of its own for each client that asks: a socket that every local user may
/// connect to, a Remote Objects host, and a ServiceInterfaceManager behind them. Endpoints live
/// as long as this object.
class IpcServer : public IpcInterfaceSource
{
public:
    explicit IpcServer(QObject *parent = nullptr);

    /// Closes every endpoint.
    ~IpcServer() override;

    /// Opens the next endpoint, on shared::getIpcProcessUrl() of the returned number.
    /// The event loop does not turn inside.
    /// @return the endpoint's number, from 1; -1 when its socket could not be opened or fewer than
    ///         GuardedLocalServer::kEndpointReserve descriptors are left, which is logged and uses
    ///         up the number.
    int createPrivilegedProcess() override;

private:
    /// What makes up one endpoint. Copies share the three objects.
    struct ProcessDescriptor
    {
        ProcessDescriptor(const QSharedPointer<CommandTotals> &totals, QObject *parent);

        // Destroyed in reverse order. The host goes first: it tells its peers, through sockets
        // that belong to the local server, that the manager is no longer there.
        QSharedPointer<GuardedLocalServer> localServer;
        QSharedPointer<ServiceInterfaceManager> ipcProcess;
        QSharedPointer<QRemoteObjectHost> serverNode;
    };

    void logLifeOf(const ProcessDescriptor &descriptor);

    qint32 m_localSocketsCounter = 0;
    QSharedPointer<CommandTotals> m_totals;
    std::vector<ProcessDescriptor> m_descriptors;
};
