#include "ipcurls.h"

namespace {

// The colon and "local:" are part of the file's name, not a scheme.
const QLatin1String kSocketName("local:TalvexFreeVpnIpcInterface");

} // namespace

QString shared::getIpcServiceUrl()
{
    return QStringLiteral("/tmp/%1").arg(kSocketName);
}

QString shared::getIpcProcessUrl(int n)
{
    return QStringLiteral("/tmp/%1_%2").arg(kSocketName).arg(n);
}
