#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace vpnctl {

struct Options;

enum class Transport { Udp, Tcp };

/// @return "UDP" or "TCP".
QString transportName(Transport transport);

/// A server, and how to reach it: what one connect command needs.
struct Target
{
    VpnServerInformation server;
    Transport transport = Transport::Udp;

    /// @return the port that goes with the transport.
    int port() const { return transport == Transport::Udp ? server.udpPort : server.tcpPort; }
};

/// Targets in the order in which to try them.
using Targets = QVector<Target>;

/// A directive that protects a profile's user, and that the daemon does not take over.
struct Weakness
{
    QString directive;
    QString text; ///< one sentence: what comes of it
};

using Weaknesses = QVector<Weakness>;

constexpr int kMaxPort = 65'535;
constexpr int kStandardPort = 1194; ///< of OpenVPN

/// @return whether @p text is a host name or an address, and not, say, a URL: ASCII letters,
///         digits, dots, hyphens, underscores, percent signs and colons (fe80::1%en0), but not one
///         colon, which would be a port's. It has at most 235 characters, the most that fit into
///         OpenVPN's line "remote HOST PORT".
bool isHost(const QString &text);

/// Where a connect command is to go, and what its user should know about it.
struct TargetList
{
    Targets targets; ///< in the order in which to try them, at least one
    QStringList notCarriedOver; ///< as of an OvpnProfile, like the rest
    Weaknesses weaknesses;
};

/// Reads the profile, the record or the files that the options name.
/// @throws Problem when they are wrong, or lack ca, cert or key.
TargetList readTargets(const Options &options);

/// Reads a server record, which the manual page describes. A port that is missing is 0.
/// @throws Problem when the record is wrong.
VpnServerInformation readServerRecord(const QString &path);

} // namespace vpnctl
