#include "target.h"

namespace vpnctl {

QString transportName(Transport transport)
{
    return transport == Transport::Udp ? QStringLiteral("UDP") : QStringLiteral("TCP");
}

bool isPort(qint64 port)
{
    return port >= kMinPort && port <= kMaxPort;
}

} // namespace vpnctl
