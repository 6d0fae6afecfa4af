#pragma once

#include <QtCore/QString>

/// What of a server record may go into an OpenVPN configuration.
///
/// The configuration is read by a program that runs as root and starts scripts, and every local
/// user may send a record. So a text that could add a directive, or change the words of the line it
/// stands in, is left out. OpenVPN (openvpn(8), "inline files") begins a directive after a line
/// feed only, takes a line's words apart at blanks and quotes, and refuses a line of 256 bytes or
/// more. An inline block ends only at its own closing tag, spelled exactly so; that need not stand
/// at the start of a line, because blocks are read in pieces of 255 bytes. A zero byte ends the
/// whole configuration.
///
/// A character beyond Latin-1 is written as a question mark, which means nothing to OpenVPN.
namespace vpncore {

/// @param port the port that stands beside the host.
/// @return whether @p host, as it is written, is one word of the line "remote HOST PORT", without
///         control character, blank, quote, backslash, "#" or ";", and the line is not too long.
///         True for an empty host.
bool fitsRemoteLine(const QString &host, int port);

/// @param tag the name of the block: "ca", "cert" or "key".
/// @return whether @p text can stand in the inline block: it has neither the block's closing tag
///         nor a zero character. True for an empty text.
bool fitsInlineBlock(const QString &text, QLatin1String tag);

} // namespace vpncore
