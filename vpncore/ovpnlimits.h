#pragma once

#include <chrono>

namespace vpncore {

/// How long a connection waits for what. Each limit is reached when that much time has passed.
struct OvpnLimits
{
    /// Between two looks at the output and the state of `openvpn`.
    std::chrono::milliseconds poll{500};
    /// For the first output of an attempt. `openvpn` prints its version at once, so without output
    /// it hangs.
    std::chrono::milliseconds firstOutput{std::chrono::seconds(10)};
    /// For one attempt.
    std::chrono::milliseconds attempt{std::chrono::seconds(16)};
    /// For all attempts of one request; the one that runs then may end in its own time.
    std::chrono::milliseconds request{std::chrono::seconds(16)};
    /// From SIGTERM to SIGKILL. The down script runs meanwhile.
    std::chrono::milliseconds terminate{std::chrono::seconds(15)};
    /// For exec(2) to succeed or fail, which takes a millisecond unless the disk hangs. The event
    /// loop does not turn meanwhile.
    std::chrono::milliseconds start{std::chrono::seconds(2)};
};

} // namespace vpncore
