#pragma once

#include <QtCore/QString>

namespace vpncore {

/// The configuration that a tunnel is started with, for QString::arg (openvpn(8) explains the
/// directives): %1 transport, %2 host, %3 CA certificate, %4 client certificate, %5 client key,
/// %6 port, %7 the folder of the up and down scripts.
///
/// @return 36 lines, 378 characters in all, each line ended by one line feed.
QString ovpnTemplate();

} // namespace vpncore
