#include "tools/vpnctl/target.h"

#include <QtCore/QRegularExpression>

namespace vpnctl {

QString transportName(Transport transport)
{
    return transport == Transport::Udp ? QStringLiteral("UDP") : QStringLiteral("TCP");
}

bool isHost(const QString &host)
{
    static const QRegularExpression form(QStringLiteral("\\A[A-Za-z0-9._:-]+\\z"));
    return form.match(host).hasMatch();
}

bool isPort(qint64 port)
{
    return port >= kLowestPort && port <= kHighestPort;
}

} // namespace vpnctl
