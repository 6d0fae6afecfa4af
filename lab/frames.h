#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QDataStream>
#include <QtCore/QVariant>

/// Remote Objects frames made by hand, good ones and those that no client would make; see
/// docs/protocol-frames.md for the layout.
namespace frames {

constexpr QLatin1String kIpcInterface("IpcInterface");
constexpr QLatin1String kServiceInterface("ServiceInterface");

template<typename... Values>
QByteArray streamed(const Values &...values)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_5_12);
    (stream << ... << values);
    return bytes;
}

/// @return @p body with its length in front.
inline QByteArray frame(const QByteArray &body)
{
    return streamed(static_cast<quint32>(body.size())) + body;
}

/// @return a frame of packet type @p type for the object @p name, with @p rest behind the name.
inline QByteArray packet(quint16 type, const QString &name, const QByteArray &rest = {})
{
    return frame(streamed(type, name) + rest);
}

inline QByteArray addObject(const QString &name)
{
    return packet(4, name, QByteArray(1, '\0'));
}

inline QByteArray removeObject(const QString &name)
{
    return packet(5, name);
}

inline QByteArray ping(const QString &name)
{
    return packet(10, name);
}

/// @return an invoke packet whose argument list says it has @p count arguments.
/// @param serial the number that comes back with the reply; -1 when none is wanted.
inline QByteArray invoke(const QString &name, int slot, quint32 count, const QByteArray &arguments,
                         int serial = -1)
{
    constexpr int kInvokeMetaMethod = 0;
    constexpr int kNoProperty = -1;
    return packet(6, name,
                  streamed(kInvokeMetaMethod, slot, count) + arguments
                      + streamed(serial, kNoProperty));
}

/// @return one argument as an invoke carries it.
inline QByteArray argument(const QVariant &value)
{
    return streamed(value);
}

inline QByteArray argument(const VpnServerInformation &value)
{
    // The stream operators of the record are only registered with the interface.
    return streamed(quint32(QMetaType::User), quint8(0), "VpnServerInformation", value);
}

inline QByteArray createPrivilegedProcess() ///< the first call of a client
{
    return invoke(kIpcInterface, 0, 0, {}, 1);
}

inline QByteArray serverSlot(bool state)
{
    return invoke(kServiceInterface, 0, 1, argument(state));
}

inline QByteArray vpnCommand(const QString &message, const VpnServerInformation &server = {})
{
    return invoke(kServiceInterface, 1, 2, argument(message) + argument(server));
}

} // namespace frames
