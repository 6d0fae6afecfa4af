#include "framechecker.h"

#include "guardlimits.h"

#include <QtCore/QDataStream>
#include <QtCore/QMetaMethod>
#include <QtCore/QVariant>
#include <QtCore/QtEndian>
#include <QtRemoteObjects/qtremoteobjectglobal.h>

#include <utility>

namespace {

constexpr int kLengthBytes = 4;

/// The packet types that a client sends. Others come from hosts only.
enum PacketType : quint16 {
    AddObject = 4,
    RemoveObject = 5,
    Invoke = 6,
    Ping = 10,
};

/// @return the slot that Remote Objects calls by this index; invalid when there is none.
QMetaMethod slotAt(const QMetaObject &source, quint32 index)
{
    for (int i = source.methodOffset(); i < source.methodCount(); ++i) {
        const QMetaMethod method = source.method(i);
        if (method.methodType() != QMetaMethod::Signal && index-- == 0)
            return method;
    }
    return {};
}

/// Reads a QVariant: type, whether it is null, for a user type its name, and the value. A value is
/// only read when its type is the expected one, so no client chooses what is loaded.
bool readsArgument(QDataStream &stream, int expectedType)
{
    quint32 type = 0;
    quint8 isNull = 0;
    stream >> type >> isNull;
    if (expectedType < QMetaType::User) {
        if (type != static_cast<quint32>(expectedType))
            return false;
    } else {
        QByteArray name; // with its final zero
        if (type != QMetaType::User)
            return false;
        stream >> name;
        const char *expectedName = QMetaType::typeName(expectedType);
        if (name
            != QByteArray::fromRawData(expectedName, static_cast<int>(qstrlen(expectedName)) + 1))
            return false;
    }
    QVariant value(expectedType, nullptr);
    return QMetaType::load(stream, expectedType, value.data());
}

} // namespace

FrameChecker::FrameChecker(const QMetaObject &source)
    : m_source(source)
    , m_name(QString::fromLatin1(
          source.classInfo(source.indexOfClassInfo(QCLASSINFO_REMOTEOBJECT_TYPE)).value()))
{
}

QByteArray FrameChecker::check(const QByteArray &bytes)
{
    if (!m_violation.isEmpty())
        return {};
    m_unfinished += bytes;

    int checked = 0;
    while (m_unfinished.size() - checked >= kLengthBytes) {
        const char *start = m_unfinished.constData() + checked;
        const auto size = qFromBigEndian<quint32>(start);
        if (size > guard::kMaxFrameBytes)
            m_violation = QStringLiteral("a frame of %1 bytes is too long").arg(size);
        else if (static_cast<quint32>(m_unfinished.size() - checked - kLengthBytes) < size)
            break;
        else
            m_violation =
                violationOf(QByteArray::fromRawData(start + kLengthBytes, static_cast<int>(size)));
        if (!m_violation.isEmpty()) {
            m_unfinished.clear();
            return {};
        }
        checked += kLengthBytes + static_cast<int>(size);
    }
    const QByteArray rest = m_unfinished.mid(checked);
    m_unfinished.truncate(checked);
    return std::exchange(m_unfinished, rest);
}

/// QDataStream believes no length: it reads texts in steps, and stops where the frame ends. So a
/// text that says to have 4 GiB costs one step of 2 MiB at most, which is given back at once.
QString FrameChecker::violationOf(const QByteArray &frame)
{
    QDataStream stream(frame);
    stream.setVersion(QDataStream::Qt_5_12); // as Remote Objects
    quint16 type = 0;
    stream >> type;
    QString problem = problemOf(type, stream);
    if (stream.status() != QDataStream::Ok)
        problem = QStringLiteral("its content is longer than the frame");
    else if (problem.isEmpty() && !stream.atEnd())
        problem = QStringLiteral("the frame is longer than its content");
    if (problem.isEmpty())
        return {};
    return QStringLiteral("a frame of type %1: %2").arg(type).arg(problem);
}

QString FrameChecker::problemOf(quint16 type, QDataStream &stream)
{
    if (type != AddObject && type != RemoveObject && type != Invoke && type != Ping)
        return QStringLiteral("clients have no reason to send it");
    QString name;
    stream >> name;
    if (name != m_name)
        return QStringLiteral("it is not for %1").arg(m_name);

    if (type == AddObject) {
        quint8 isDynamic = 0;
        stream >> isDynamic;
        // Each further listener would multiply every answer.
        if (std::exchange(m_isAttached, true))
            return QStringLiteral("the client has a replica already");
    } else if (type == RemoveObject) {
        m_isAttached = false;
    } else if (type == Invoke) {
        return problemOfInvoke(stream);
    }
    return {};
}

QString FrameChecker::problemOfInvoke(QDataStream &stream) const
{
    qint32 call = 0;
    quint32 index = 0;
    quint32 count = 0;
    stream >> call >> index >> count;
    if (call != QMetaObject::InvokeMetaMethod)
        return QStringLiteral("it calls no slot");
    const QMetaMethod slot = slotAt(m_source, index);
    if (!slot.isValid())
        return QStringLiteral("there is no such slot");
    if (count != static_cast<quint32>(slot.parameterCount()))
        return QStringLiteral("the slot takes another number of arguments");
    for (int i = 0; i < slot.parameterCount(); ++i) {
        if (!readsArgument(stream, slot.parameterType(i)))
            return QStringLiteral("the slot takes other arguments");
    }
    qint32 serial = 0; // of the call, for its reply
    qint32 property = 0; // none
    stream >> serial >> property;
    return {};
}
