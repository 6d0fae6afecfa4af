#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <memory>
#include <vector>

/// A connection to a local socket without any of Qt, that may do what Qt would not. May be used
/// outside the main thread.
class RawConnection
{
public:
    /// Connects. While the server's queue is full, the event loop of this thread turns, if it has
    /// one, so that a daemon does not wait for its log to be read.
    explicit RawConnection(const QString &name);
    ~RawConnection();
    RawConnection(const RawConnection &) = delete;
    RawConnection &operator=(const RawConnection &) = delete;

    bool isConnected() const { return m_isConnected; }

    /// Sends everything, unless the peer closes the connection or takes nothing for long.
    bool send(const QByteArray &bytes);

    void finishSending();

    /// Reads what has come, and what comes within @p limitMs milliseconds.
    /// @return whether the peer has closed the connection after it.
    bool isClosedByPeer(int limitMs = 0) const;

private:
    int m_socket;
    bool m_isConnected = false;
};

using RawConnections = std::vector<std::unique_ptr<RawConnection>>;

/// @return that many connections; the server need not have accepted them yet.
RawConnections openConnections(const QString &name, int number);

/// @return how many of them the peer has closed.
int closedByPeer(const RawConnections &connections);
