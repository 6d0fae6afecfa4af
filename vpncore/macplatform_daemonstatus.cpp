#include "bashscript.h"
#include "macplatform.h"

#include <QtCore/QDebug>
#include <QtCore/QFile>

namespace vpncore {

bool MacPlatform::isDemonPlistExist()
{
    return QFile::exists(QStringLiteral("/Library/LaunchDaemons/TalvexVpnd.plist"));
}

bool MacPlatform::isDemonLoad(std::chrono::milliseconds limit)
{
    const QString processes =
        runBashScript(QStringLiteral("ps aux | grep talvexvpnd | grep -v grep"), limit);
    const bool loaded = processes.contains(QLatin1String("talvexvpnd"));
    qDebug() << "result output " << (loaded ? "true" : "false");
    return loaded;
}

} // namespace vpncore
