#pragma once

#include "rep_ipcinterface_source.h"

#include <QtCore/QSharedPointer>

class CommandTotals;
class QLocalServer;
class QRemoteObjectHost;
class ServiceInterfaceManager;
class UserShare;

/// Opens an endpoint of its own for each client that asks: a socket that every local user may
/// connect to, a Remote Objects host, and a ServiceInterfaceManager behind them. Endpoints live
/// as long as this object.
class IpcServer : public IpcInterfaceSource
{
public:
    explicit IpcServer(QObject *parent = nullptr);

    /// Opens the next endpoint, on shared::getIpcProcessUrl() of the returned number.
    /// It belongs to the user who asks: nobody else but root may connect to it.
    /// The event loop does not turn inside.
    /// @return the endpoint's number, from 1; -1 when its socket could not be opened, leaves fewer
    ///         than guard::kEndpointReserve descriptors, or is more than its user may have, which
    ///         is logged and uses up the number.
    int createPrivilegedProcess() override;

private:
    /// What makes up one endpoint. Copies share the three objects; connections hold copies, and
    /// with them keep the endpoint alive.
    struct ProcessDescriptor
    {
        ProcessDescriptor(const QSharedPointer<CommandTotals> &totals, quint32 user,
                          QObject *parent);

        QSharedPointer<ServiceInterfaceManager> ipcProcess;
        QSharedPointer<QRemoteObjectHost> serverNode;
        QSharedPointer<QLocalServer> localServer;
        QSharedPointer<UserShare> share;
        quint32 owner; ///< the user who asked for it
    };

    void serve(const ProcessDescriptor &descriptor);

    qint32 m_localSocketsCounter = 0;
    QSharedPointer<CommandTotals> m_totals;
};
