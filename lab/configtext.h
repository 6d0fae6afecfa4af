#pragma once

#include "ovpnconnection.h"
#include "vpnserverinformation.h"

#include <QtCore/QByteArrayList>
#include <QtCore/QString>

/// Configuration texts on their way into the file that `openvpn` reads, and what may be in it.
namespace configtext {

/// @return what vpncore::OvpnConnection generates.
QString generated(vpncore::OvpnConnection::ConnectionType type, const VpnServerInformation &server);

/// @return what it would generate if it looked at no field: the template, filled with the record.
QString unchecked(vpncore::OvpnConnection::ConnectionType type, const VpnServerInformation &server);

/// @return the bytes that the driver writes for a configuration text.
QByteArray written(const QString &configText);

/// @return the lines of a file that OpenVPN 2.6 reads as directives, the opening tags of inline
///         blocks among them, up to the first line that it refuses: "unreadable: ...".
QByteArrayList directives(const QByteArray &file);

/// Compares the file for @p server with the template: each field whole or left out, and no other
/// directives than the template's.
/// @return what is wrong, in words; empty when nothing is.
QByteArray problem(vpncore::OvpnConnection::ConnectionType type, const VpnServerInformation &server,
                   const QByteArray &file);

} // namespace configtext
