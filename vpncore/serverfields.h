#pragma once

#include <QtCore/QString>

/// What of a server record may go into an OpenVPN configuration.
///
/// The configuration is read by a program that runs as root and starts scripts, and every local
/// user may send a record. So a text that could be read as anything but the value it stands for
/// is left out. OpenVPN (openvpn(8), "inline files") takes a line's words apart at blanks and
/// quotes. It reads inline blocks in pieces of 255 bytes, and a block ends at the first piece that
/// begins, after white space, with the closing tag, whether or not a line begins there. Other lines
/// have at most 255 bytes.
namespace vpncore {

/// The longest host that fits into a line with the rest of it, "remote HOST PORT", whatever the
/// port. DNS names have at most 253 characters, and those in use far fewer.
constexpr int kLongestHost = 235;

/// @return whether @p text is a host name or an address, and nothing else to OpenVPN: ASCII
///         letters, digits, dots, hyphens, underscores and colons, at most kLongestHost of them.
bool isHost(const QString &text);

/// @return whether @p text consists of PEM blocks (RFC 7468) and, between them, of explanatory
///         text: every block is closed under its own label and holds base64 or headers only, and
///         nowhere is there a "</" or a control character other than tab, line feed and
///         carriage return.
bool isPem(const QString &text);

} // namespace vpncore
