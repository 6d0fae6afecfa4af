#include "descriptors.h"

#include <QtCore/QtGlobal>

#include <array>

#include <sys/socket.h>
#include <unistd.h>

namespace vpncore {

bool canOpenDescriptors(int count)
{
    Q_ASSERT(count >= 0 && count <= kMostDescriptors);
    std::array<int, kMostDescriptors> opened;
    int number = 0;
    while (number < count) {
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (descriptor < 0)
            break;
        opened[static_cast<std::size_t>(number++)] = descriptor;
    }
    for (int i = 0; i < number; ++i)
        ::close(opened[static_cast<std::size_t>(i)]);
    return number == count;
}

} // namespace vpncore
