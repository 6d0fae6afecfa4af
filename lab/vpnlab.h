#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QString>

/// Two real OpenVPN servers in another network namespace (lab/vpn-lab), one for each
/// transport. Only for use in a private root with net and tun.
namespace vpnlab {

/// Starts them, or does nothing when they are there.
/// @return false when they do not accept clients; the reason is on standard error.
bool up();

/// Ends them, if there are any.
bool down();

/// @return the record with which a client gets a tunnel over both.
VpnServerInformation server();

} // namespace vpnlab
