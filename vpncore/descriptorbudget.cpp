#include "descriptorbudget.h"

#include <fcntl.h>
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
    const int firstOfReserve = static_cast<int>(::sysconf(_SC_OPEN_MAX)) - kTunnelReserve;
    const int probe = ::fcntl(descriptor, F_DUPFD_CLOEXEC, firstOfReserve);
    ::close(probe);
    return probe == firstOfReserve;
}

} // namespace vpncore
