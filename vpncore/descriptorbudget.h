#pragma once

namespace vpncore {

/// The daemon never lets its descriptors run out, because a local server whose accept(2) fails
/// closes for good. Each kind of use leaves a reserve for those that matter more: a new endpoint
/// leaves enough for connections to the endpoints that there are, a new connection enough for a
/// tunnel with its scripts, and a new tunnel leaves this many: enough to run the script that
/// restores the DNS settings (8 on Linux, 12 on macOS), and to accept connections and close them.
constexpr int kTunnelReserve = 20;

/// The kernel hands out the lowest free number, so a number tells how many others are left at
/// least: all above it, up to the limit of the process.
///
/// @param descriptor a number that the kernel has just given.
/// @param reserve how many descriptors must be left.
/// @return whether they are.
bool leavesDescriptors(int descriptor, int reserve);

/// The same for a tunnel, which takes four more descriptors after it was asked for one, so that
/// others may be taken above that. Counts those that are free, with a call or two of poll(2).
///
/// @param descriptor the lowest number that was free.
/// @return whether kTunnelReserve descriptors are left above it.
bool leavesTunnelReserve(int descriptor);

} // namespace vpncore
