#include "target.h"

#include <QtCore/QRegularExpression>

namespace vpnctl {

QString transportName(Transport transport)
{
    return transport == Transport::Udp ? QStringLiteral("UDP") : QStringLiteral("TCP");
}

bool isHost(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("\\A[A-Za-z0-9._:%-]{1,235}\\z"));
    return pattern.match(text).hasMatch();
}

} // namespace vpnctl
