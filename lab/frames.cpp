#include "frames.h"

#include <QtCore/QDataStream>
#include <QtCore/QVariant>

namespace frames {

namespace {

constexpr quint16 kAddObject = 4;
constexpr quint16 kRemoveObject = 5;
constexpr quint16 kInvoke = 6;
constexpr quint16 kPing = 10;

constexpr int kInvokeMetaMethod = 0;
constexpr int kNoProperty = -1;

template<typename... Values>
QByteArray streamed(const Values &...values)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_5_12);
    (stream << ... << values);
    return bytes;
}

QByteArray argumentOf(const QVariant &value)
{
    return streamed(value);
}

} // namespace

QByteArray frame(const QByteArray &body)
{
    return streamed(static_cast<quint32>(body.size())) + body;
}

QByteArray packet(quint16 type, const QString &name, const QByteArray &rest)
{
    return frame(streamed(type, name) + rest);
}

QByteArray addObject(const QString &name)
{
    return packet(kAddObject, name, QByteArray(1, '\0'));
}

QByteArray removeObject(const QString &name)
{
    return packet(kRemoveObject, name);
}

QByteArray ping(const QString &name)
{
    return packet(kPing, name);
}

QByteArray invoke(const QString &name, int slot, quint32 count, const QByteArray &arguments,
                  int serial)
{
    return packet(kInvoke, name,
                  streamed(kInvokeMetaMethod, slot, count) + arguments
                      + streamed(serial, kNoProperty));
}

QByteArray createPrivilegedProcess()
{
    return invoke(kIpcInterface, kCreatePrivilegedProcess, 0, {}, 1);
}

QByteArray serverSlot(bool state)
{
    return invoke(kServiceInterface, kServerSlot, 1, argument(state));
}

QByteArray vpnCommand(const QString &message, const VpnServerInformation &server)
{
    return invoke(kServiceInterface, kVpnCommand, 2, argument(message) + argument(server));
}

QByteArray argument(bool value)
{
    return argumentOf(value);
}

QByteArray argument(const QString &value)
{
    return argumentOf(value);
}

QByteArray argument(const VpnServerInformation &value)
{
    // The stream operators of the record are only registered with the interface.
    return streamed(quint32(QMetaType::User), quint8(0), "VpnServerInformation", value);
}

} // namespace frames
