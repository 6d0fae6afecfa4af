#pragma once

#include "operationresult.h"
#include "vpnserverinformation.h"

namespace vpncore {

/// A connection through OpenVPN, as the command dispatcher sees it.
///
/// Every operation answers when it is done and turns the event loop until then, so further
/// operations may be called from inside; the newest one decides what is running afterwards.
class IOvpnConnection
{
public:
    virtual ~IOvpnConnection() = default;

    /// Brings a tunnel to @p server up over UDP, in place of any tunnel there is.
    /// @return success when the tunnel is up, otherwise a failure with a localisation key.
    virtual OperationResult connectUdp(const VpnServerInformation &server) = 0;

    /// Like connectUdp(), over TCP.
    virtual OperationResult connectTcp(const VpnServerInformation &server) = 0;

    /// Takes the tunnel down and gives the DNS settings back; without a tunnel it does nothing.
    /// @return success, always.
    virtual OperationResult disconnect() = 0;
};

} // namespace vpncore
