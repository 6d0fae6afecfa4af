#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <functional>

/// Records with which a client tries to get a directive of its own into the configuration.
namespace hostilerecords {

struct Record
{
    QString name; ///< the trick, in words
    VpnServerInformation server;
    /// Whether OpenVPN would read the directive if the field got into the configuration as it is.
    /// If not, the trick works on another reader, or with another conversion of the text.
    bool isInjection;
};

/// @return the fields that reach the configuration as texts: host, ca, cert, key.
QStringList fields();

/// @return the field of @p server with that name.
QString &fieldOf(VpnServerInformation &server, const QString &field);

/// @param good what the records are made from: a host, and PEM texts with a line feed at the end.
/// @param directive gives the line to inject, without a line feed, for the n-th record.
/// @return every trick for one of fields().
QVector<Record> of(const QString &field, const VpnServerInformation &good,
                   const std::function<QString(int n)> &directive);

} // namespace hostilerecords
