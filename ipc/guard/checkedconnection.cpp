#include "checkedconnection.h"

#include "descriptorbudget.h"
#include "guardlimits.h"
#include "peeruser.h"

#include <QtCore/QDataStream>
#include <QtCore/QDebug>
#include <QtCore/QScopedValueRollback>
#include <QtNetwork/QLocalServer>
#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectHost>

#include <algorithm>
#include <cstring>
#include <utility>

#include <unistd.h>

namespace {

/// What all connections hold together.
qint64 totalHeldBytes = 0;

/// Whose frames Remote Objects is reading now, if any.
std::optional<quint32> readUser;

/// @return why the connection may not be; null when it may.
const char *problemOf(int descriptor, quint32 user, std::optional<quint32> owner)
{
    if (owner && user != *owner && user != kRootUser)
        return "the endpoint belongs to another user";
    if (!UserShare::isLeftFor(user))
        return "its user has too many";
    if (!vpncore::leavesDescriptors(descriptor, guard::kConnectionReserve))
        return "too few descriptors are left";
    return nullptr;
}

/// A frame that calls a slot of an object that nobody publishes, without arguments. A host keeps
/// the arguments of the last call for as long as it lives, be they long or a private key; this
/// makes it forget them, and has no other effect.
QByteArray callOfNothing()
{
    constexpr quint16 kInvoke = 6;
    constexpr qint32 kNoReply = -1;
    constexpr qint32 kNoProperty = -1;
    QByteArray frame;
    QDataStream stream(&frame, QIODevice::WriteOnly);
    stream << quint32(0) << kInvoke << QString() << qint32(QMetaObject::InvokeMetaMethod)
           << qint32(0) << quint32(0) << kNoReply << kNoProperty;
    stream.device()->seek(0);
    stream << quint32(frame.size() - int(sizeof(quint32)));
    return frame;
}

} // namespace

bool CheckedConnection::accept(QLocalServer &server, QRemoteObjectHostBase &host,
                               const QMetaObject &source, std::optional<quint32> owner)
{
    QLocalSocket *socket = server.nextPendingConnection();
    const int descriptor = static_cast<int>(socket->socketDescriptor());
    const quint32 user = userOfPeer(descriptor);
    if (const char *problem = problemOf(descriptor, user, owner)) {
        delete socket;
        qWarning() << "Connection refused:" << problem;
        return false;
    }
    auto *connection = new CheckedConnection(socket, source, user);
    host.addHostSideConnection(connection);
    // Without this, a host would go on to write to every connection that it ever had. Qt's
    // ExternalIoDevice (src/remoteobjects/qconnectionfactories.cpp) looks up the signal
    // SIGNAL(disconnected()), "2" in front, under which no class has one: 5.15.8 and 5.15.15 then
    // connect nothing, 5.15.2 connects all the same. The object that Qt has just made is the host's
    // last child.
    connect(connection, SIGNAL(disconnected()), host.children().constLast(), SIGNAL(disconnected()),
            Qt::UniqueConnection);
    // Last: the host's objects write to it when they are deleted, so it must outlive them.
    connection->setParent(&host);
    return true;
}

quint32 CheckedConnection::callingUser()
{
    return readUser.value_or(::geteuid());
}

CheckedConnection::CheckedConnection(QLocalSocket *socket, const QMetaObject &source, quint32 user)
    : m_socket(socket)
    , m_user(user)
    , m_share(user)
    , m_checker(source)
{
    m_socket->setParent(this);
    m_socket->setReadBufferSize(guard::kMaxReadBytes);
    connect(m_socket, &QLocalSocket::readyRead, this, &CheckedConnection::checkIncoming);
    connect(m_socket, &QLocalSocket::bytesWritten, this, &CheckedConnection::limitHeldBytes);
    connect(m_socket, &QLocalSocket::disconnected, this, [this] {
        Q_EMIT disconnected();
        deleteLater();
    });
    open(QIODevice::ReadWrite);
}

CheckedConnection::~CheckedConnection()
{
    totalHeldBytes -= m_heldBytes;
}

qint64 CheckedConnection::bytesAvailable() const
{
    return QIODevice::bytesAvailable() + m_readable.size();
}

qint64 CheckedConnection::bytesToWrite() const
{
    return m_socket->bytesToWrite();
}

void CheckedConnection::close()
{
    QIODevice::close();
    m_socket->abort();
}

qint64 CheckedConnection::readData(char *data, qint64 maxSize)
{
    const int size = static_cast<int>(std::min<qint64>(maxSize, m_readable.size()));
    std::memcpy(data, m_readable.constData(), static_cast<std::size_t>(size));
    m_readable.remove(0, size);
    if (m_readable.isEmpty())
        m_readable.clear(); // which also frees the memory of a long frame
    return size;
}

qint64 CheckedConnection::writeData(const char *data, qint64 size)
{
    if (m_isRefused)
        return size;
    if (m_socket->bytesToWrite() + size > guard::kMaxUnreadBytes) {
        refuse(QStringLiteral("the client does not read its answers"));
        return size;
    }
    const qint64 written = m_socket->write(data, size);
    limitHeldBytes();
    return written;
}

void CheckedConnection::checkIncoming()
{
    const QByteArray arrived = m_socket->readAll();
    if (m_isRefused)
        return;
    QByteArray checked = m_checker.check(arrived);
    if (!m_checker.violation().isEmpty()) {
        refuse(m_checker.violation());
        return;
    }
    limitHeldBytes();
    if (m_isRefused || checked.isEmpty())
        return;
    const bool isLong = checked.size() > guard::kMaxKeptBytes;
    m_readable += std::exchange(checked, {}); // shared with nobody, so that reading copies it once
    if (isLong)
        m_readable += callOfNothing();
    // Slots are called from within.
    const QScopedValueRollback<std::optional<quint32>> reading(readUser, m_user);
    Q_EMIT readyRead();
}

void CheckedConnection::limitHeldBytes()
{
    const qint64 held = m_checker.heldBytes() + m_socket->bytesToWrite();
    totalHeldBytes += held - m_heldBytes;
    m_heldBytes = held;
    if (held > guard::kMaxShareBytes && totalHeldBytes > guard::kMaxHeldBytes && !m_isRefused)
        refuse(QStringLiteral("too much is held for its client"));
}

void CheckedConnection::refuse(const QString &reason)
{
    m_isRefused = true;
    qWarning() << "Connection closed:" << reason;
    // Not at once: the caller may be in the middle of telling something to all its connections.
    QMetaObject::invokeMethod(m_socket, &QLocalSocket::abort, Qt::QueuedConnection);
}
