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

    /// Sends everything, unless the peer closes the connection or takes nothing for @p limitMs.
    bool send(const QByteArray &bytes, int limitMs = 30'000);

    void finishSending();

    /// Reads at least @p size bytes.
    bool receive(int size);

    /// Reads until the peer has closed the connection.
    /// @return false when it does not within some seconds.
    bool waitForEnd();

    /// Reads what has come.
    /// @return whether the peer has closed the connection after it.
    bool isClosedByPeer() const;

private:
    int m_socket;
    bool m_isConnected = false;
};

using RawConnections = std::vector<std::unique_ptr<RawConnection>>;

/// @return that many connections; the server need not have accepted them yet.
RawConnections openConnections(const QString &name, int number);

/// @return how many of them the peer has closed.
int closedByPeer(const RawConnections &connections);
