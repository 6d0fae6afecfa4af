#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QString>

/// Two real OpenVPN servers in another network namespace (lab/vpn-lab), one for each
/// transport, which end with the private root. Only for use in one with net and tun.
namespace vpnlab {

/// Starts them, or does nothing when they are there.
/// @return false when they do not accept clients; the reason is on standard error.
bool up();

/// @return the record with which a client gets a tunnel over both.
VpnServerInformation server();

} // namespace vpnlab
