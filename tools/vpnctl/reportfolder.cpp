#include "reportfolder.h"

#include "observation.h"

#include <QtCore/QDir>
#include <QtCore/QRegularExpression>

namespace vpnctl {

namespace {

struct Entry
{
    const char *name;
    const char *meaning;
    const char *script; ///< whose output it is; $0 is vpnctl
};

constexpr Entry kEntries[] = {
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
     "tail -c 4000000 /var/log/talvexvpnd.log"},
};

} // namespace

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
    text.replace(QLatin1String("\\n"), QLatin1String("\n")); // as the log has line breaks
    return text.replace(secrets, QStringLiteral("<left out>"));
}

void makeReportFolder(const QString &path, Report &report)
{
    const auto cannot = [](const QString &what) {
        return wrongUse(QStringLiteral("Cannot make %1.").arg(what),
                        QStringLiteral("Name a folder that is not there yet, as in \"vpnctl report "
                                       "/tmp/report\"."));
    };
    if (!QDir().mkdir(path))
        throw cannot(QStringLiteral("the folder ") + path);
    for (const Entry &entry : kEntries) {
        QFile file(QDir(path).filePath(QLatin1String(entry.name)));
        report.print("file",
                     {{QStringLiteral("path"), file.fileName()},
                      {QStringLiteral("text"), QLatin1String(entry.meaning)}},
                     QStringLiteral("%1: %2").arg(file.fileName(), QLatin1String(entry.meaning)));
        QString text = QString::fromUtf8(outputOf(QLatin1String(entry.script)));
        if (&entry == std::end(kEntries) - 1)
            text = withoutSecrets(text);
        if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.flush())
            throw cannot(file.fileName());
    }
    report.note(QStringLiteral("Read the files before you hand them on."));
}

} // namespace vpnctl
