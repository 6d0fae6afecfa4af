#include "rawconnections.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kConnectLimitMs = 10'000;

} // namespace

RawConnections::~RawConnections()
{
    closeAll();
}

bool RawConnections::open(const QString &name, int number)
{
    const QByteArray path = QFile::encodeName(name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= static_cast<int>(sizeof address.sun_path))
        return false;
    std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));

    for (int i = 0; i < number; ++i) {
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (descriptor < 0)
            return false;
        m_descriptors.append(descriptor);
        QElapsedTimer timer;
        timer.start();
        while (::connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address)
               != 0) {
            // A queue that is full says so at once; only the daemon can empty it.
            if (errno != EAGAIN || timer.hasExpired(kConnectLimitMs))
                return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
    }
    return true;
}

int RawConnections::closedByDaemon() const
{
    return static_cast<int>(
        std::count_if(m_descriptors.begin(), m_descriptors.end(), [](int descriptor) {
            char byte = 0;
            return ::recv(descriptor, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
        }));
}

void RawConnections::closeAll()
{
    for (const int descriptor : qAsConst(m_descriptors))
        ::close(descriptor);
    m_descriptors.clear();
}
