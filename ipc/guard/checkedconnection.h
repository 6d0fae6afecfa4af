#pragma once

#include "framechecker.h"
#include "usershare.h"

#include <QtCore/QIODevice>

#include <optional>

class QLocalServer;
class QLocalSocket;
class QRemoteObjectHostBase;

/// The daemon's end of a connection, which every local user may open: what a host reads from it has
/// passed a FrameChecker. A client that violates the protocol, or that makes the daemon hold too
/// much for it (guardlimits.h), is disconnected, and one line in the log says why. What all
/// connections of the process hold is counted together.
class CheckedConnection : public QIODevice
{
    Q_OBJECT

public:
    /// Takes the next pending connection of a server and hands it to a host, which owns it. It is
    /// deleted when the client has gone. The event loop does not turn inside.
    /// @param source what clients may call; see FrameChecker.
    /// @param owner who alone, besides root, may connect; without a value, everybody.
    /// @return false when the connection was closed at once instead, which is logged: its user may
    ///         not connect here, has too many already (UserShare), or it would leave fewer than
    ///         guard::kConnectionReserve descriptors.
    static bool accept(QLocalServer &server, QRemoteObjectHostBase &host, const QMetaObject &source,
                       std::optional<quint32> owner = {});

    /// @return the user whose call is being carried out; outside of calls, the daemon's own.
    static quint32 callingUser();

    /// @param socket a connection from which nothing was read yet; this takes it over.
    /// @param user who has opened it.
    CheckedConnection(QLocalSocket *socket, const QMetaObject &source, quint32 user);
    ~CheckedConnection() override;

    bool isSequential() const override { return true; }

    /// @return the bytes of whole, checked frames that can be read.
    qint64 bytesAvailable() const override;
    qint64 bytesToWrite() const override;

    /// Ends the connection.
    void close() override;

Q_SIGNALS:
    /// The connection has ended. Nothing more can be read, and this is deleted soon.
    void disconnected();

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    void checkIncoming();
    void limitHeldBytes();
    void refuse(const QString &reason);

    QLocalSocket *m_socket;
    quint32 m_user;
    UserShare m_share;
    FrameChecker m_checker;
    QByteArray m_readable;
    qint64 m_heldBytes = 0;
    bool m_isRefused = false;
};
