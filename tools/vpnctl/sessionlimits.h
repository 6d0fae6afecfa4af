#pragma once

#include <chrono>

namespace vpnctl {

/// How long the conversation with the daemon waits for what. Tests pass shorter times.
struct SessionLimits
{
    /// For everything that the daemon does at once, unless it is restoring the DNS settings: for up
    /// to 10 s it does nothing else then.
    std::chrono::milliseconds handshake = std::chrono::seconds(15);

    std::chrono::milliseconds heartbeatPeriod = std::chrono::seconds(10);

    /// Between two heartbeats. The daemon's limit is 30 s; what is sent just before may come after.
    std::chrono::milliseconds silence = std::chrono::seconds(29);
};

} // namespace vpnctl
