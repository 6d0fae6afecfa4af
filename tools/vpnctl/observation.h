#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QVector>

namespace vpnctl {

/// A network interface of a tunnel, whoever made it.
struct TunnelInterface
{
    unsigned index = 0;
    QString name;
    QString address;
    quint32 bytesIn = 0; ///< As the system counts them here, modulo 4 GiB; likewise bytesOut.
    quint32 bytesOut = 0;
};

/// @return the machine's point-to-point interfaces with an address that is not link-local: macOS
///         keeps some with no other for itself.
QVector<TunnelInterface> tunnelInterfaces();

/// @return what can be seen of the VPN without asking the daemon: "interfaces" (objects with
///         "name", "address", "bytesIn" and "bytesOut"), "dns" (the servers in use), "backups" (the
///         names of the backups of DNS settings; null when the user may not look), and "endpoints"
///         (the numbers of those that have a socket).
QJsonObject observation();

/// @return the same as lines for people.
QString textOf(const QJsonObject &observation);

/// @return what a script for sh(1) prints within ten seconds. In it, $0 is this program.
QByteArray outputOf(const QString &script);

} // namespace vpnctl
