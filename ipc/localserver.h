#pragma once

#include "ipcserver.h"

#include <QtCore/QSharedPointer>
#include <QtRemoteObjects/QRemoteObjectHost>

class QLocalServer;

/// The daemon's one well-known socket, shared::getIpcServiceUrl(), with an IpcServer behind it
/// that every client of the socket shares. Every local user may connect.
class LocalServer : public QObject
{
    Q_OBJECT

public:
    /// Starts to listen. A name that is taken by the daemon's own user, be it by a live daemon or
    /// by a file that a dead one left, is logged and left alone; the object then serves nobody.
    /// What other users put there is replaced.
    explicit LocalServer(QObject *parent = nullptr);

    /// Closes the socket and every client's endpoint.
    ~LocalServer() override;

private:
    void acceptConnection();

    // Destroyed in reverse order.
    QSharedPointer<QLocalServer> m_server;
    IpcServer m_ipcServer;
    QRemoteObjectHost m_serverNode;
    bool m_isRemotingEnabled = false;
};
