#include "framechecker.h"

#include <QtCore/QDataStream>
#include <QtCore/QMetaObject>
#include <QtCore/QMetaType>
#include <QtCore/QtEndian>

#include <cstring>
#include <utility>

namespace {

constexpr int kLengthBytes = 4;

/// The packet types that a client has reason to send.
enum PacketType : quint16 {
    Handshake = 1,
    AddObject = 4,
    RemoveObject = 5,
    Invoke = 6,
    Ping = 10,
    Pong = 11,
};

/// Reads the fields of one frame, in QDataStream's format, and never beyond its end. After the
/// first field that does not fit, every further one fails, too.
class FrameReader
{
public:
    FrameReader(const char *frame, quint32 size)
        : m_position(frame)
        , m_end(frame + size)
    {
    }

    bool hasFailed() const { return m_failed; }
    bool isAtEnd() const { return !m_failed && m_position == m_end; }

    quint8 readByte() { return readInteger<quint8>(); }
    quint16 readShort() { return readInteger<quint16>(); }
    quint32 readInt() { return readInteger<quint32>(); }

    /// A QString: length in bytes, then UTF-16.
    void skipText()
    {
        constexpr quint32 kNullText = 0xffffffff;
        const quint32 size = readInt();
        if (size == kNullText)
            return;
        if (size % 2 != 0)
            m_failed = true;
        skip(size);
    }

    /// A QString, compared with one as it looks in a frame.
    bool readsText(const QByteArray &expected)
    {
        const char *start = m_position;
        skipText();
        return !m_failed && m_position - start == expected.size()
            && std::memcmp(start, expected.constData(), static_cast<std::size_t>(expected.size()))
            == 0;
    }

    /// A zero-terminated text as QDataStream writes a `const char *`: length with the zero.
    bool readsName(const char *expected)
    {
        const std::size_t size = std::strlen(expected) + 1;
        if (readInt() != size)
            return false;
        const char *name = skip(static_cast<quint32>(size));
        return name && std::memcmp(name, expected, size) == 0;
    }

private:
    const char *skip(quint32 size)
    {
        if (m_failed || size > static_cast<quint64>(m_end - m_position)) {
            m_failed = true;
            return nullptr;
        }
        const char *start = m_position;
        m_position += size;
        return start;
    }

    template<typename Integer>
    Integer readInteger()
    {
        const char *bytes = skip(sizeof(Integer));
        return bytes ? qFromBigEndian<Integer>(bytes) : Integer(0);
    }

    const char *m_position;
    const char *m_end;
    bool m_failed = false;
};

void skipServerRecord(FrameReader &reader)
{
    reader.skipText(); // name
    reader.readInt(); // id
    reader.skipText(); // info
    reader.skipText(); // host
    reader.readInt(); // id, again
    reader.skipText(); // ca
    reader.skipText(); // key
    reader.skipText(); // cert
    reader.readInt(); // udpPort
    reader.readInt(); // tcpPort
}

/// A QVariant: type, whether it is null, for a user type its name, and the value.
bool readsArgument(FrameReader &reader, RemoteInterface::Argument argument)
{
    const quint32 type = reader.readInt();
    reader.readByte();
    switch (argument) {
    case RemoteInterface::Argument::Bool:
        reader.readByte();
        return type == QMetaType::Bool;
    case RemoteInterface::Argument::Text:
        reader.skipText();
        return type == QMetaType::QString;
    case RemoteInterface::Argument::ServerRecord:
        if (type != QMetaType::User || !reader.readsName("VpnServerInformation"))
            return false;
        skipServerRecord(reader);
        return true;
    }
    return false;
}

QString checkInvoke(FrameReader &reader, const RemoteInterface &interface)
{
    if (reader.readInt() != QMetaObject::InvokeMetaMethod)
        return QStringLiteral("it calls no slot");
    const quint32 index = reader.readInt();
    if (index >= static_cast<quint32>(interface.methods.size()))
        return QStringLiteral("there is no such slot");
    const RemoteInterface::Slot &arguments = interface.methods.at(static_cast<int>(index));
    if (reader.readInt() != static_cast<quint32>(arguments.size()))
        return QStringLiteral("the slot takes another number of arguments");
    for (const RemoteInterface::Argument argument : arguments) {
        if (!readsArgument(reader, argument))
            return QStringLiteral("the slot takes other arguments");
    }
    reader.readInt(); // number of the call, for its reply
    reader.readInt(); // property, none
    return {};
}

} // namespace

RemoteInterface RemoteInterface::ipcInterface()
{
    return {QStringLiteral("IpcInterface"), {Slot{}}};
}

RemoteInterface RemoteInterface::serviceInterface()
{
    return {QStringLiteral("ServiceInterface"),
            {Slot{Argument::Bool}, Slot{Argument::Text, Argument::ServerRecord}}};
}

FrameChecker::FrameChecker(const RemoteInterface &interface)
    : m_interface(interface)
{
    QDataStream stream(&m_nameInFrames, QIODevice::WriteOnly);
    stream << interface.name;
}

bool FrameChecker::feed(QByteArray bytes)
{
    if (!m_violation.isEmpty())
        return false;
    if (m_unfinished.isEmpty())
        m_unfinished = std::move(bytes);
    else
        m_unfinished += bytes;

    int checked = 0;
    while (m_unfinished.size() - checked >= kLengthBytes) {
        const char *start = m_unfinished.constData() + checked;
        const auto size = qFromBigEndian<quint32>(start);
        if (size > kLongestFrame)
            m_violation = QStringLiteral("a frame of %1 bytes is too long").arg(size);
        else if (static_cast<quint32>(m_unfinished.size() - checked - kLengthBytes) < size)
            break;
        else
            m_violation = checkFrame(start + kLengthBytes, size);
        if (!m_violation.isEmpty()) {
            m_unfinished.clear();
            m_checked.clear();
            return false;
        }
        checked += kLengthBytes + static_cast<int>(size);
    }
    const QByteArray rest = m_unfinished.mid(checked);
    m_unfinished.truncate(checked);
    m_checked += std::exchange(m_unfinished, rest);
    return true;
}

QByteArray FrameChecker::takeChecked()
{
    return std::exchange(m_checked, {});
}

/// @return what is wrong with the frame, in words; empty when nothing is.
QString FrameChecker::checkFrame(const char *frame, quint32 size)
{
    FrameReader reader(frame, size);
    const quint16 type = reader.readShort();
    QString problem;
    switch (type) {
    case Handshake:
        reader.skipText();
        break;
    case AddObject:
    case RemoveObject:
    case Invoke:
    case Ping:
    case Pong:
        if (!reader.readsText(m_nameInFrames))
            problem = QStringLiteral("it is not for %1").arg(m_interface.name);
        break;
    default:
        problem = QStringLiteral("clients have no reason to send it");
    }

    if (problem.isEmpty() && type == AddObject) {
        reader.readByte(); // whether the replica is dynamic
        // Each further listener would multiply every answer.
        if (std::exchange(m_isAttached, true))
            problem = QStringLiteral("the client has a replica already");
    } else if (problem.isEmpty() && type == RemoveObject) {
        m_isAttached = false;
    } else if (problem.isEmpty() && type == Invoke) {
        problem = checkInvoke(reader, m_interface);
    }

    if (reader.hasFailed())
        problem = QStringLiteral("its content is longer than the frame");
    else if (problem.isEmpty() && !reader.isAtEnd())
        problem = QStringLiteral("the frame is longer than its content");
    if (problem.isEmpty())
        return {};
    return QStringLiteral("a frame of type %1: %2").arg(type).arg(problem);
}
