#pragma once

#include <QtCore/QString>

namespace vpnctl {

/// The longest host that fits into OpenVPN's line "remote HOST PORT", whatever the port. DNS names
/// in use are far shorter.
constexpr int kMaxHostLength = 235;

/// @return whether @p text is a host name or an address, and not, say, a URL: ASCII letters,
///         digits, dots, hyphens, underscores, colons and percent signs (fe80::1%en0), at most
///         kMaxHostLength of them.
bool isHost(const QString &text);

} // namespace vpnctl
