#include "descriptorbudget.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>

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
    const auto limit = static_cast<int>(std::min<long>(::sysconf(_SC_OPEN_MAX), INT_MAX));
    std::array<pollfd, 64> numbers{};
    std::ptrdiff_t free = 0;
    for (int next = descriptor; next < limit && free < kTunnelReserve;) {
        auto end = numbers.begin();
        while (end != numbers.end() && next < limit)
            (end++)->fd = next++;
        ::poll(numbers.data(), static_cast<nfds_t>(end - numbers.begin()), 0);
        free += std::count_if(numbers.begin(), end,
                              [](const pollfd &each) { return each.revents == POLLNVAL; });
    }
    return free >= kTunnelReserve;
}

} // namespace vpncore
