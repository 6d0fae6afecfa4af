#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayList>
#include <QtCore/QVector>

/// Reads a configuration file as OpenVPN 2.6 reads it, beyond what openvpn(8) says: a line of 256
/// bytes or more is refused, but within inline blocks lines come in pieces of 255 bytes, and every
/// piece is a line of its own.
namespace openvpnparser {

struct Directive
{
    QByteArrayList words; ///< the directive's name first, without quotes
    QByteArray block; ///< of an inline block, what stands between its tags
    bool isBlock = false;
    bool isClosed = true; ///< false for a block that the file ends in

    bool operator==(const Directive &other) const;
    bool operator!=(const Directive &other) const { return !(*this == other); }
};

/// @return the directives in order, up to the first line that OpenVPN would refuse as a whole; that
///         one is a directive "unreadable" with the line as its only argument.
QVector<Directive> parse(const QByteArray &file);

/// @return one line for each directive, for a failing test's message.
QByteArray toText(const QVector<Directive> &directives);

} // namespace openvpnparser
