#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <optional>

namespace vpnctl {

struct Options;

constexpr int kMaxPort = 65'535;
constexpr int kStandardPort = 1194; ///< of OpenVPN

enum class Transport { Udp, Tcp };

/// @return "UDP" or "TCP".
QString transportName(Transport transport);

/// Where a server listens.
struct Remote
{
    QString host;
    int port = 0; ///< 0 where a line of a profile leaves it open; never so in a TargetList.
    std::optional<Transport> transport; ///< the same
};

/// A directive that protects a profile's user, and that the daemon does not take over.
struct Weakness
{
    QString directive;
    QString text; ///< one sentence: what comes of it
};

using Weaknesses = QVector<Weakness>;

/// Where a connect command is to go, and what its user should know about it.
struct TargetList
{
    QVector<Remote> remotes; ///< in the order in which to try them, at least one
    VpnServerInformation server; ///< ca, cert and key, which all of them share

    /// Directives of a profile that the daemon's configuration lacks, each once, in order: those
    /// that protect the user, and others. Those that change nothing for the user are left out.
    Weaknesses weaknesses;
    QStringList notCarriedOver;
};

/// Reads the profile, the record or the files that the options name.
/// @throws Problem when they are wrong, or lack ca, cert or key.
TargetList readTargets(const Options &options);

/// Reads an OpenVPN client profile, as far as the daemon can use it. ca, cert and key may be empty.
/// @throws Problem when it is wrong, with the line's number where that can be told.
TargetList readOvpnProfile(const QString &path);

/// @return the directives that protect a profile's user, with what comes of it that the daemon does
///         not take them over. Directives that share a sentence are separated by blanks.
Weaknesses protections();

/// Reads a server record, which the manual page describes. A port that is missing is 0.
/// @throws Problem when the record is wrong.
VpnServerInformation readServerRecord(const QString &path);

/// @return whether @p text is a host name or an address, and not, say, a URL: ASCII letters,
///         digits, dots, hyphens, underscores, percent signs and colons (fe80::1%en0), but not one
///         colon, which would be a port's. It has at most 235 characters, the most that fit into
///         OpenVPN's line "remote HOST PORT".
bool isHost(const QString &text);

} // namespace vpnctl
