#pragma once

#include "vpnserverinformation.h"

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

constexpr int kMinPort = 1;
constexpr int kMaxPort = 65'535;
constexpr int kStandardPort = 1194; ///< of OpenVPN

/// @return whether @p port is a port number.
bool isPort(qint64 port);

} // namespace vpnctl
