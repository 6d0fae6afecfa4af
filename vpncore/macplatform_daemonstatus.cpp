#include "bashscript.h"
#include "macplatform.h"

#include <QtCore/QDebug>
#include <QtCore/QFile>

namespace vpncore {

namespace {

constexpr std::chrono::seconds kListingLimit{2};

} // namespace

bool MacPlatform::isDemonPlistExist()
{
    return QFile::exists(QStringLiteral("/Library/LaunchDaemons/TalvexVpnd.plist"));
}

bool MacPlatform::isDemonLoad()
{
    const QString processes =
        runBashScript(QStringLiteral("ps aux | grep talvexvpnd | grep -v grep"), kListingLimit);
    const bool loaded = processes.contains(QLatin1String("talvexvpnd"));
    qDebug() << "result output " << (loaded ? "true" : "false");
    return loaded;
}

} // namespace vpncore
