#include "guardedlocalsocket.h"

#include <QtCore/QDataStream>
#include <QtCore/QDebug>
#include <QtCore/QMetaObject>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

/// What all connections hold together.
qint64 totalHeldBytes = 0;

/// A frame that calls a slot of an object that nobody publishes, without arguments. A host keeps
/// the arguments of the last call for as long as it lives, be they a MiB or a private key; this
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

GuardedLocalSocket::GuardedLocalSocket(const RemoteInterface &interface, QObject *parent)
    : QLocalSocket(parent)
    , m_checker(interface)
{
    setReadBufferSize(kMostReadBytes);
    // Connected first, so it comes before whoever reads.
    connect(this, &QLocalSocket::readyRead, this, &GuardedLocalSocket::checkIncoming);
    connect(this, &QLocalSocket::bytesWritten, this, &GuardedLocalSocket::accountHeldBytes);
}

GuardedLocalSocket::~GuardedLocalSocket()
{
    totalHeldBytes -= m_heldBytes;
}

qint64 GuardedLocalSocket::bytesAvailable() const
{
    // Not QLocalSocket's, which counts what was not checked yet.
    return QIODevice::bytesAvailable() // NOLINT(bugprone-parent-virtual-call)
        + m_readable.size() - m_readPosition;
}

qint64 GuardedLocalSocket::readData(char *data, qint64 maxSize)
{
    const int size =
        static_cast<int>(std::min<qint64>(maxSize, m_readable.size() - m_readPosition));
    std::memcpy(data, m_readable.constData() + m_readPosition, static_cast<std::size_t>(size));
    m_readPosition += size;
    if (m_readPosition == m_readable.size())
        dropReadable();
    return size;
}

void GuardedLocalSocket::checkIncoming()
{
    if (m_isRefused)
        return;
    QByteArray arrived(static_cast<int>(QLocalSocket::bytesAvailable()), Qt::Uninitialized);
    const qint64 size = QLocalSocket::readData(arrived.data(), arrived.size());
    arrived.truncate(static_cast<int>(std::max<qint64>(size, 0)));

    if (m_checker.feed(std::move(arrived))) {
        m_readable.remove(0, std::exchange(m_readPosition, 0));
        const QByteArray checked = m_checker.takeChecked();
        m_readable += checked;
        if (checked.size() > kMostKeptBytes)
            m_readable += callOfNothing();
        accountHeldBytes();
    } else {
        refuse(m_checker.violation());
    }
}

qint64 GuardedLocalSocket::writeData(const char *data, qint64 size)
{
    if (m_isRefused)
        return size;
    if (bytesToWrite() + size > kMostUnreadBytes) {
        refuse(QStringLiteral("the client does not read its answers"));
        return size;
    }
    const qint64 written = QLocalSocket::writeData(data, size);
    accountHeldBytes();
    return written;
}

void GuardedLocalSocket::accountHeldBytes()
{
    const qint64 held = m_checker.heldBytes() + bytesToWrite();
    totalHeldBytes += held - m_heldBytes;
    m_heldBytes = held;
    if (held > kFairShareBytes && totalHeldBytes > kMostHeldBytes && !m_isRefused)
        refuse(QStringLiteral("too much is held for its client"));
}

void GuardedLocalSocket::dropReadable()
{
    m_readable.clear();
    m_readPosition = 0;
}

void GuardedLocalSocket::refuse(const QString &reason)
{
    m_isRefused = true;
    dropReadable();
    qWarning() << "Connection closed:" << reason;
    // Not at once: the caller may be in the middle of telling something to all its connections.
    QMetaObject::invokeMethod(this, &QLocalSocket::abort, Qt::QueuedConnection);
}
