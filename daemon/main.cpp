#include "bashscript.h"
#include "boundedlog.h"
#include "dnsrestorer.h"
#include "dnsscripts.h"
#include "ipcurls.h"
#include "localserver.h"
#include "ovpnconnection.h"
#include "socketname.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QDir>
#include <QtCore/QStandardPaths>

namespace {

/// Makes the folder in which the tunnel's scripts keep the DNS settings that they replace.
void createDataFolder()
{
    const QString path = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation)
        + QStringLiteral("/data");
    qDebug() << path;
    if (!QDir().mkpath(path))
        qDebug() << "Directory isn't created";
}

/// Restores the DNS settings that an earlier run left changed; blocks meanwhile.
void checkDNS()
{
    const QString output =
        vpncore::runBashScript(vpncore::dnsRestoreScript(), vpncore::kDnsScriptLimit);
    // Every text contains the empty one, so this says "true" always, and that is wanted: a failed
    // restore shows in what networksetup printed, not here.
    qDebug() << "check DNS result " << (output.contains(QString()) ? "true" : "false");
    vpncore::DnsRestorer::instance().watch();
}

} // namespace

int main(int argc, char **argv)
{
    keepLogWithin();
    QCoreApplication application(argc, argv);
    // The folder of the settings has this name. Within a bundle, macOS would give the client's.
    QCoreApplication::setApplicationName(QStringLiteral("talvexvpnd"));
    // The answer is not used, and that is wanted: a call left over from earlier days, without harm.
    QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    createDataFolder();
    checkDNS();
    // A daemon that lives may be in the middle of an attempt.
    if (!socketname::isTakenByOwnUser(shared::getIpcServiceUrl()))
        vpncore::OvpnConnection::removeLeftConfigFiles();
    LocalServer server;
    return QCoreApplication::exec();
}
