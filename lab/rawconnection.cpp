#include "rawconnection.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QThread>

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kLimitMs = 30'000;

bool waitFor(int socket, short event, int limitMs = kLimitMs)
{
    pollfd ready = {socket, event, 0};
    return ::poll(&ready, 1, limitMs) == 1;
}

} // namespace

RawConnection::RawConnection(const QString &name)
    : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(name).constData(), sizeof(address.sun_path));
    QElapsedTimer timer;
    timer.start();
    do {
        m_isConnected =
            ::connect(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
        if (m_isConnected || errno != EAGAIN)
            break;
        QCoreApplication::processEvents();
        QThread::msleep(1);
    } while (!timer.hasExpired(kLimitMs));
}

RawConnection::~RawConnection()
{
    ::close(m_socket);
}

bool RawConnection::send(const QByteArray &bytes)
{
    int sent = 0;
    while (sent < bytes.size()) {
        const auto count = ::send(m_socket, bytes.constData() + sent,
                                  static_cast<std::size_t>(bytes.size() - sent), MSG_NOSIGNAL);
        if (count > 0)
            sent += static_cast<int>(count);
        else if (errno != EAGAIN || !waitFor(m_socket, POLLOUT))
            return false;
    }
    return true;
}

void RawConnection::finishSending()
{
    ::shutdown(m_socket, SHUT_WR);
}

bool RawConnection::isClosedByPeer(int limitMs) const
{
    char buffer[4096];
    while (waitFor(m_socket, POLLIN, limitMs)) {
        if (::recv(m_socket, buffer, sizeof(buffer), 0) <= 0)
            return true;
    }
    return false;
}

RawConnections openConnections(const QString &name, int number)
{
    RawConnections connections;
    for (int i = 0; i < number; ++i)
        connections.push_back(std::make_unique<RawConnection>(name));
    return connections;
}

int closedByPeer(const RawConnections &connections)
{
    return static_cast<int>(
        std::count_if(connections.begin(), connections.end(),
                      [](const auto &connection) { return connection->isClosedByPeer(); }));
}
