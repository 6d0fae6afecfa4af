#include "host.h"

#include <QtCore/QRegularExpression>

namespace vpnctl {

bool isHost(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("\\A[A-Za-z0-9._:%-]+\\z"));
    return text.size() <= kMaxHostLength && pattern.match(text).hasMatch();
}

} // namespace vpnctl
