#pragma once

#include <chrono>

namespace vpnctl {

/// How long is waited for what. Tests pass shorter times.
struct SessionLimits
{
    /// For everything that the daemon does at once, unless it is restoring the DNS settings: for up
    /// to 10 s it does nothing else then.
    std::chrono::milliseconds handshake = std::chrono::seconds(15);

    std::chrono::milliseconds heartbeatPeriod = std::chrono::seconds(10);

    /// Of a vpnctl that was stopped. The daemon's limit is 30 s; what is sent just before may come
    /// after.
    std::chrono::milliseconds silence = std::chrono::seconds(29);

    /// After which it is looked again whether the tunnel is there.
    std::chrono::milliseconds lookPeriod = std::chrono::seconds(1);

    /// Before a tunnel that has gone is brought up again; each time twice as long as before.
    std::chrono::milliseconds firstPause = std::chrono::seconds(1);
    std::chrono::milliseconds longestPause = std::chrono::seconds(60);
};

} // namespace vpnctl
