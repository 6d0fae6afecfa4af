#pragma once

#include "ovpnconnection.h"
#include "vpnserverinformation.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

/// Configuration texts on their way into the file that `openvpn` reads, and what may be in it.
namespace configtext {

/// @return what vpncore::OvpnConnection generates.
QString generated(vpncore::OvpnConnection::ConnectionType type, const VpnServerInformation &server);

/// @return what it would generate if it looked at no field: the template, filled with the record
///         as it is, the port and the folder after the rest.
QString unchecked(vpncore::OvpnConnection::ConnectionType type, const VpnServerInformation &server);

/// @return the bytes that the driver writes for a configuration text.
QByteArray written(const QString &configText);

/// Compares the file for @p server, as OpenVPN reads it, with the template's directives.
/// @return what is wrong in words: a directive too many, one too few, one with other words, or a
///         block that holds neither the record's text nor nothing. Empty when nothing is.
QByteArray problem(vpncore::OvpnConnection::ConnectionType type, const VpnServerInformation &server,
                   const QByteArray &file);

} // namespace configtext
