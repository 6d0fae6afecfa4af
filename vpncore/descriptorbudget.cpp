#include "descriptorbudget.h"

#include <unistd.h>

namespace vpncore {

bool leavesDescriptors(int descriptor, int reserve)
{
    const long limit = ::sysconf(_SC_OPEN_MAX);
    return limit < 0 || descriptor < limit - reserve;
}

} // namespace vpncore
