#include "descriptorbudget.h"

#include <algorithm>
#include <array>

#include <poll.h>
#include <unistd.h>

namespace vpncore {

bool leavesDescriptors(int descriptor, int reserve)
{
    const long limit = ::sysconf(_SC_OPEN_MAX);
    return limit < 0 || descriptor < limit - reserve;
}

bool leavesTunnelReserve(int descriptor)
{
    if (!leavesDescriptors(descriptor, kTunnelReserve))
        return false;
    std::array<pollfd, kTunnelReserve> reserve{};
    int number = static_cast<int>(::sysconf(_SC_OPEN_MAX)) - kTunnelReserve;
    for (pollfd &each : reserve)
        each.fd = number++;
    ::poll(reserve.data(), reserve.size(), 0);
    return std::all_of(reserve.begin(), reserve.end(),
                       [](const pollfd &each) { return each.revents == POLLNVAL; });
}

} // namespace vpncore
