#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

/// Remote Objects frames made by hand, good ones and those that no client would make; see
/// docs/protocol-frames.md for the layout.
namespace frames {

constexpr QLatin1String kIpcInterface("IpcInterface");
constexpr QLatin1String kServiceInterface("ServiceInterface");

/// The index of a slot in its interface.
constexpr int kCreatePrivilegedProcess = 0;
constexpr int kServerSlot = 0;
constexpr int kVpnCommand = 1;

/// @return @p body with its length in front.
QByteArray frame(const QByteArray &body);

/// @return a frame of packet type @p type for the object @p name, with @p rest behind the name.
QByteArray packet(quint16 type, const QString &name, const QByteArray &rest = {});

QByteArray addObject(const QString &name);
QByteArray removeObject(const QString &name);
QByteArray ping(const QString &name);

/// @return an invoke packet whose argument list says it has @p count arguments.
/// @param serial the number that comes back with the reply; -1 when none is wanted.
QByteArray invoke(const QString &name, int slot, quint32 count, const QByteArray &arguments,
                  int serial = -1);

QByteArray createPrivilegedProcess(); ///< the first call of a client
QByteArray serverSlot(bool state);
QByteArray vpnCommand(const QString &message, const VpnServerInformation &server = {});

/// @return one argument as an invoke carries it.
QByteArray argument(bool value);
QByteArray argument(const QString &value);
QByteArray argument(const VpnServerInformation &value);

} // namespace frames
