#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace vpnctl {

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

constexpr int kMinPort = 1;
constexpr int kMaxPort = 65'535;
constexpr int kStandardPort = 1194; ///< of OpenVPN

/// @return whether @p text is a host name or an address, and not, say, a URL: ASCII letters,
///         digits, dots, hyphens, underscores, colons and percent signs (fe80::1%en0). It has at
///         most 235 characters, the most that fit into OpenVPN's line "remote HOST PORT".
bool isHost(const QString &text);

} // namespace vpnctl
