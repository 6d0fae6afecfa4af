#pragma once

#include "report.h"

#include <QtCore/QStringList>

namespace vpnctl {

/// A network interface of a tunnel, whoever made it.
struct TunnelInterface
{
    unsigned index = 0;
    QString name;
    QString address;
    qint64 bytesIn = 0; ///< As the system counts them here, modulo 4 GiB; likewise bytesOut.
    qint64 bytesOut = 0;

    bool operator==(const TunnelInterface &other) const { return index == other.index; }
};

/// @return the machine's point-to-point interfaces with an address that is not link-local: macOS
///         keeps some with no other for itself.
QVector<TunnelInterface> tunnelInterfaces();

/// @return the numbers of the endpoints that have a socket, in ascending order. A daemon that was
///         killed leaves its sockets behind.
QVector<int> endpointsWithSockets();

/// Prints what can be seen from outside: tunnel interfaces, DNS servers, backups of DNS settings
/// and endpoints.
void reportObservation(Report &report);

/// Makes a folder with what a maintainer asks for. Each file is reported before it is written.
/// @throws Problem when that fails, for example because the folder is there already.
void makeReportFolder(const QString &path, Report &report);

/// @return the text without what may come from a server's record: addresses, host names, and
///         whatever could be a part of a key or a certificate.
QString withoutSecrets(QString text);

} // namespace vpnctl
