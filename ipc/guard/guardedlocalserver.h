#pragma once

#include "framechecker.h"

#include <QtCore/QQueue>
#include <QtNetwork/QLocalServer>

/// A local server whose connections are GuardedLocalSockets, and that leaves the process enough
/// descriptors: a connection that would take one of the last is closed at once.
class GuardedLocalServer : public QLocalServer
{
    Q_OBJECT

public:
    /// What a new connection leaves: enough for a tunnel with its scripts.
    static constexpr int kConnectionReserve = 32;
    /// What a new endpoint leaves: the same, and connections to the endpoints that there are.
    static constexpr int kEndpointReserve = 64;

    /// @param interface what its clients may call.
    GuardedLocalServer(const RemoteInterface &interface, QObject *parent);

    /// Listens as QLocalServer does with WorldAccessOption, but fails on a name that is taken,
    /// by a live server or by anything else, and leaves that alone. The option itself must not be
    /// set; the process's umask is 0 for the time of the call.
    bool listenExclusively(const QString &name);

    /// Listens as QLocalServer does, unless fewer than kEndpointReserve descriptors are left.
    bool listen(const QString &name);

    /// @return why listening failed.
    QString errorString() const;

    bool hasPendingConnections() const override;

    /// @return the oldest connection that was not taken yet, owned by this; null without any.
    QLocalSocket *nextPendingConnection() override;

protected:
    void incomingConnection(quintptr socketDescriptor) override;

private:
    RemoteInterface m_interface;
    QQueue<QLocalSocket *> m_pendingConnections;
    bool m_isShortOfDescriptors = false;
};
