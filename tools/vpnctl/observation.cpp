#include "observation.h"

#include "ipcurls.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QMap>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtNetwork/QHostAddress>

#include <algorithm>
#include <cerrno>

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>
#ifdef Q_OS_LINUX
#include <linux/if_link.h>
#endif

namespace vpnctl {

namespace {

// The entry of an interface that has its counters.
#ifdef Q_OS_LINUX
constexpr int kLinkFamily = AF_PACKET;
constexpr auto kBytesIn = &rtnl_link_stats::rx_bytes;
constexpr auto kBytesOut = &rtnl_link_stats::tx_bytes;
using Counters = rtnl_link_stats;
#else
constexpr int kLinkFamily = AF_LINK;
constexpr auto kBytesIn = &if_data::ifi_ibytes;
constexpr auto kBytesOut = &if_data::ifi_obytes;
using Counters = if_data;
#endif

const QString kBackups = "/var/root/Library/Preferences/talvexvpnd/data";

struct ReportFile
{
    const char *name;
    const char *meaning;
    const char *script; ///< whose output it is; $0 is vpnctl
    bool hasSecrets = false; ///< which are left out
};

constexpr ReportFile kReportFiles[] = {
    {"versions.txt", "the versions of vpnctl, the application, openvpn and the system",
     R"("$0" --version
        app="/Applications/Talvex VPN.app/Contents"
        defaults read "$app/Info" CFBundleShortVersionString
        ls -l "$app/MacOS" "$app/Resources"
        "$app/MacOS/openvpn" --version
        sw_vers || cat /etc/os-release
        uname -a)"},
    {"status.txt", "what \"vpnctl status\" shows", R"("$0" status)"},
    {"job.txt", "what launchd says about the daemon",
     R"(launchctl print system/com.talvex.talvexvpnd
        echo "exit status $?"
        launchctl print-disabled system)"},
    {"log.txt", "the end of the daemon's log, if you may read it, without addresses and keys",
     "tail -c 4000000 /var/log/talvexvpnd.log", true},
};

/// @return what a script for sh(1) prints within ten seconds. In it, $0 is this program.
QByteArray outputOf(const QString &script)
{
    constexpr int kLimitMs = 10'000;
    QProcess shell;
    shell.setProcessChannelMode(QProcess::MergedChannels);
    shell.start("/bin/sh",
                {"-c", "PATH=/bin:/sbin:/usr/sbin:/usr/bin; " + script,
                 QCoreApplication::applicationFilePath()});
    shell.waitForFinished(kLimitMs);
    return shell.readAll();
}

/// @return the DNS servers that the system asks.
QJsonArray dnsServers()
{
    static const QRegularExpression server(R"(^ *nameserver(?:\[[0-9]+\] :)? (\S+))",
                                           QRegularExpression::MultilineOption);
    const QString text =
        QString::fromUtf8(outputOf("scutil --dns 2>/dev/null || cat /etc/resolv.conf 2>/dev/null"));
    QStringList servers;
    for (auto matches = server.globalMatch(text.section("(for scoped queries)", 0, 0));
         matches.hasNext();)
        servers.append(matches.next().captured(1));
    servers.removeDuplicates();
    return QJsonArray::fromStringList(servers);
}

/// @return the names of the backups of DNS settings; null when the user may not look.
QJsonValue dnsBackups()
{
    if (::access(QFile::encodeName(kBackups), R_OK | X_OK) != 0 && errno == EACCES)
        return {};
    QStringList names;
    // The name of a network service may have slashes, and its backup then lies in folders.
    for (QDirIterator files(kBackups, QDir::Files, QDirIterator::Subdirectories); files.hasNext();)
        names.append(files.next().mid(kBackups.size() + 1));
    return QJsonArray::fromStringList(names);
}

QString listed(const QJsonArray &values)
{
    const QStringList texts = QVariant(values.toVariantList()).toStringList();
    return texts.isEmpty() ? "none" : texts.join(", ");
}

} // namespace

QVector<TunnelInterface> tunnelInterfaces()
{
    QMap<QString, TunnelInterface> tunnels;
    ifaddrs *entries = nullptr;
    if (::getifaddrs(&entries) != 0)
        return {};
    for (const ifaddrs *entry = entries; entry; entry = entry->ifa_next) {
        if (!(entry->ifa_flags & IFF_POINTOPOINT))
            continue;
        const QString name = QString::fromLocal8Bit(entry->ifa_name);
        TunnelInterface &tunnel = tunnels[name];
        // On Linux, one that has no hardware address has none here.
        const bool isLink = !entry->ifa_addr || entry->ifa_addr->sa_family == kLinkFamily;
        const QHostAddress address = isLink ? QHostAddress() : QHostAddress(entry->ifa_addr);
        if (isLink && entry->ifa_data) {
            const auto *counters = static_cast<const Counters *>(entry->ifa_data);
            tunnel.bytesIn = counters->*kBytesIn;
            tunnel.bytesOut = counters->*kBytesOut;
        } else if (!address.isNull() && !address.isLinkLocal() && tunnel.name.isEmpty()) {
            tunnel.index = ::if_nametoindex(entry->ifa_name);
            tunnel.name = name;
            tunnel.address = address.toString();
        }
    }
    ::freeifaddrs(entries);
    QVector<TunnelInterface> found;
    for (const TunnelInterface &tunnel : qAsConst(tunnels)) {
        if (!tunnel.name.isEmpty())
            found.append(tunnel);
    }
    return found;
}

QVector<int> endpointsWithSockets()
{
    const QFileInfo main(shared::getIpcServiceUrl());
    const QString prefix = main.fileName() + '_';
    QVector<int> endpoints;
    for (const QString &name : main.dir().entryList({prefix + '*'}, QDir::System))
        endpoints.append(name.mid(prefix.size()).toInt());
    std::sort(endpoints.begin(), endpoints.end());
    return endpoints;
}

void reportObservation(Report &report)
{
    QJsonArray tunnels;
    QJsonArray lines;
    for (const TunnelInterface &tunnel : tunnelInterfaces()) {
        tunnels.append(QJsonObject{{"name", tunnel.name},
                                   {"address", tunnel.address},
                                   {"bytesIn", tunnel.bytesIn},
                                   {"bytesOut", tunnel.bytesOut}});
        lines.append(QString("%1 with %2 (%3 bytes in, %4 out)")
                         .arg(tunnel.name, tunnel.address)
                         .arg(tunnel.bytesIn)
                         .arg(tunnel.bytesOut));
    }
    const QJsonArray dns = dnsServers();
    const QJsonValue backups = dnsBackups();
    QJsonArray endpoints;
    for (const int endpoint : endpointsWithSockets())
        endpoints.append(endpoint);
    report.print(
        "observation",
        {{"interfaces", tunnels}, {"dns", dns}, {"backups", backups}, {"endpoints", endpoints}},
        QString("Tunnel interfaces: %1\n"
                "DNS servers in use: %2\n"
                "Backups of DNS settings: %3\n"
                "Endpoints with a socket: %4")
            .arg(listed(lines), listed(dns),
                 backups.isNull() ? "only root may see them" : listed(backups.toArray()),
                 listed(endpoints)));
}

QString withoutSecrets(QString text)
{
    static const QRegularExpression secrets(
        QStringLiteral("-----BEGIN.*?-----END[^-]*-----"
                       "|[A-Za-z0-9+/=]{32,}" // a line of one
                       "|[0-9]{1,3}(\\.[0-9]{1,3}){3}"
                       "|\\b[0-9A-Fa-f]{1,4}(:[0-9A-Fa-f]{0,4}){3,7}"
                       "|\\b[0-9A-Fa-f]{1,4}::[0-9A-Fa-f:]*"
                       "|(?<=address: )[^ ]+"
                       "|\\b([A-Za-z0-9_-]+\\.)+(?!app\\b)[A-Za-z]{2,}\\b"),
        QRegularExpression::DotMatchesEverythingOption);
    text.replace("\\n", "\n"); // as the log has line breaks
    return text.replace(secrets, "<left out>");
}

void makeReportFolder(const QString &path, Report &report)
{
    const auto cannot = [](const QString &what) {
        return wrongUse(QString("Cannot make %1.").arg(what),
                        "Name a folder that is not there yet, as in \"vpnctl report "
                        "/tmp/report\".");
    };
    if (!QDir().mkdir(path))
        throw cannot("the folder " + path);
    for (const ReportFile &entry : kReportFiles) {
        QFile file(QDir(path).filePath(entry.name));
        report.print("file", {{"path", file.fileName()}, {"text", entry.meaning}},
                     QString("%1: %2").arg(file.fileName(), entry.meaning));
        QString text = QString::fromUtf8(outputOf(entry.script));
        if (entry.hasSecrets)
            text = withoutSecrets(text);
        if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.flush())
            throw cannot(file.fileName());
    }
    report.note("Read the files before you hand them on.");
}

} // namespace vpnctl
