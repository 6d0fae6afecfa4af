#pragma once

#include "framechecker.h"

#include <QtNetwork/QLocalSocket>

/// The daemon's end of a connection, which every local user may open. What is read from it has
/// passed a FrameChecker. A client that violates the protocol, or that makes the daemon hold too
/// much for it, is disconnected, and one line in the log says why.
class GuardedLocalSocket : public QLocalSocket
{
    Q_OBJECT

public:
    /// What waits to be read by one client, at most.
    static constexpr qint64 kMostUnreadBytes = qint64(1024) * 1024;
    /// What is read from one client before the others have their turn.
    static constexpr qint64 kMostReadBytes = qint64(32) * 1024;
    /// What is held for one client, read or unread, without asking what the others have.
    static constexpr qint64 kFairShareBytes = qint64(64) * 1024;
    /// What is held for all clients together before more than its fair share is too much for one.
    static constexpr qint64 kMostHeldBytes = qint64(16) * 1024 * 1024;
    /// The longest call whose arguments the host may keep until the next one.
    static constexpr int kMostKeptBytes = 4 * 1024;

    GuardedLocalSocket(const RemoteInterface &interface, QObject *parent);
    ~GuardedLocalSocket() override;

    /// @return the bytes of whole, checked frames that can be read.
    qint64 bytesAvailable() const override;

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    void checkIncoming();
    void accountHeldBytes();
    void dropReadable();
    void refuse(const QString &reason);

    FrameChecker m_checker;
    QByteArray m_readable;
    int m_readPosition = 0; ///< in m_readable; what is before it has been read
    qint64 m_heldBytes = 0;
    bool m_isRefused = false;
};
