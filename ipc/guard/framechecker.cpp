#include "framechecker.h"

#include "guardlimits.h"

#include <QtCore/QDataStream>
#include <QtCore/QMetaMethod>
#include <QtCore/QVariant>
#include <QtCore/QtEndian>
#include <QtRemoteObjects/qtremoteobjectglobal.h>

#include <cstring>
#include <utility>

namespace {

constexpr int kLengthBytes = 4;

/// Longer calls are not kept for comparison. A heartbeat has some 60 bytes, a disconnect some 300.
constexpr int kMaxUsualBytes = 1024;

/// The packet types that a client sends. Others come from hosts only.
enum PacketType : quint16 {
    AddObject = 4,
    RemoveObject = 5,
    Invoke = 6,
    Ping = 10,
};

/// @return the types of the arguments of what Remote Objects calls, by its indices.
QVector<QVector<int>> slotsOf(const QMetaObject &source)
{
    QVector<QVector<int>> slotList;
    for (int i = source.methodOffset(); i < source.methodCount(); ++i) {
        const QMetaMethod method = source.method(i);
        if (method.methodType() == QMetaMethod::Signal)
            continue;
        slotList.append(QVector<int>());
        for (int argument = 0; argument < method.parameterCount(); ++argument)
            slotList.last().append(method.parameterType(argument));
    }
    return slotList;
}

/// Reads a QVariant: type, whether it is null, for a user type its name, and the value. A value is
/// only read when its type is the expected one, so no client chooses what is loaded.
bool readsArgument(QDataStream &stream, int expectedType)
{
    quint32 type = 0;
    quint8 isNull = 0;
    stream >> type >> isNull;
    const bool isUserType = expectedType >= QMetaType::User;
    if (type != static_cast<quint32>(isUserType ? QMetaType::User : expectedType))
        return false;
    if (isUserType) {
        QByteArray name; // with its final zero
        stream >> name;
        const char *expectedName = QMetaType::typeName(expectedType);
        if (name.size() != static_cast<int>(qstrlen(expectedName)) + 1
            || qstrcmp(name.constData(), expectedName) != 0)
            return false;
    }
    QVariant value(expectedType, nullptr);
    return QMetaType::load(stream, expectedType, value.data());
}

} // namespace

FrameChecker::FrameChecker(const QMetaObject &source)
    : m_name(QString::fromLatin1(
        source.classInfo(source.indexOfClassInfo(QCLASSINFO_REMOTEOBJECT_TYPE)).value()))
    , m_slots(slotsOf(source))
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
        else if (!isUsual(start + kLengthBytes, size))
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

bool FrameChecker::isUsual(const char *frame, quint32 size) const
{
    return size > 0 && size == static_cast<quint32>(m_usual.size())
        && std::memcmp(frame, m_usual.constData(), size) == 0;
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
    if (problem.isEmpty()) {
        if (type == Invoke && frame.size() <= kMaxUsualBytes)
            m_usual = QByteArray(frame.constData(), frame.size());
        return {};
    }
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
    if (index >= static_cast<quint32>(m_slots.size()))
        return QStringLiteral("there is no such slot");
    const QVector<int> &arguments = m_slots.at(static_cast<int>(index));
    if (count != static_cast<quint32>(arguments.size()))
        return QStringLiteral("the slot takes another number of arguments");
    for (const int type : arguments) {
        if (!readsArgument(stream, type))
            return QStringLiteral("the slot takes other arguments");
    }
    qint32 serial = 0; // of the call, for its reply
    qint32 property = 0; // none
    stream >> serial >> property;
    return {};
}
