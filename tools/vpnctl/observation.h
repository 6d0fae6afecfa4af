#pragma once

#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <optional>

namespace vpnctl {

/// A network interface of a tunnel, whoever made it.
struct TunnelInterface
{
    unsigned index = 0;
    QString name;
    QString address;
    qint64 bytesIn = 0; ///< As the system counts them here, modulo 4 GiB; likewise bytesOut.
    qint64 bytesOut = 0;
};

/// @return the machine's point-to-point interfaces with an address that is not link-local: macOS
///         keeps some with no other for itself.
QVector<TunnelInterface> tunnelInterfaces();

/// @return the numbers of the endpoints that have a socket, in ascending order. A daemon that was
///         killed leaves its sockets behind.
QVector<int> endpointsWithSockets();

/// @return the DNS servers that the system asks.
QStringList dnsServers();

/// @return the names of the backups of DNS settings; nothing when the user may not look.
std::optional<QStringList> dnsBackups();

/// @return what a script for sh(1) prints within ten seconds. In it, $0 is this program.
QByteArray outputOf(const QString &script);

} // namespace vpnctl
