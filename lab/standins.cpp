#include "standins.h"

#include "files.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QProcess>

#include <algorithm>

#include <sys/stat.h>

namespace {

QString state(const QString &name)
{
    return "/var/root/stand-ins/" + name;
}

QStringList linesOf(const QString &path)
{
    return QString::fromUtf8(lab::contentOf(path)).split('\n', Qt::SkipEmptyParts);
}

void networksetup(const QStringList &arguments)
{
    QProcess::execute("/sbin/networksetup", arguments);
}

} // namespace

namespace standins {

QVector<OpenvpnStart> openvpnStarts()
{
    QVector<OpenvpnStart> starts;
    for (const QString &line : stateLines("openvpn/journal")) {
        QStringList words = line.split('\t');
        const qint64 pid = words.takeFirst().toLongLong();
        if (!words.isEmpty()) // Other lines say what became of one.
            starts.append({pid, words});
    }
    return starts;
}

int runningOpenvpns()
{
    const auto starts = openvpnStarts();
    return int(std::count_if(starts.begin(), starts.end(),
                             [](const OpenvpnStart &start) { return isAlive(start.pid); }));
}

QByteArray configurationOf(const OpenvpnStart &start)
{
    return lab::contentOf(state(QString("openvpn/config.%1").arg(start.pid)));
}

QByteArray configurationModeOf(const OpenvpnStart &start)
{
    struct stat status = {};
    ::stat(qPrintable(state(QString("openvpn/config.%1").arg(start.pid))), &status);
    return QByteArray::number(status.st_mode & 07777U, 8);
}

VpnServerInformation serverFor(const QString &scenario)
{
    VpnServerInformation server;
    server.host = scenario;
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

VpnServerInformation serverThatPlays(const QString &script)
{
    VpnServerInformation server = serverFor("192.0.2.2");
    server.ca = "play " + script;
    return server;
}

QStringList dnsServers(const QString &service)
{
    return linesOf(state(QString("networksetup/dns_%1").arg(service)));
}

QStringList searchDomains(const QString &service)
{
    return linesOf(state(QString("networksetup/search_%1").arg(service)));
}

void setDns(const QString &service, const QStringList &servers, const QStringList &domains)
{
    networksetup(QStringList{"-setdnsservers", service} + servers);
    networksetup(QStringList{"-setsearchdomains", service} + domains);
}

QStringList networksetupCalls()
{
    return linesOf(state("networksetup/journal"));
}

QString dataFolder()
{
    return "/var/root/Library/Preferences/talvexvpnd/data";
}

QStringList backupFiles()
{
    return QDir(dataFolder()).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

void writeBackup(const QString &name, const QByteArray &content)
{
    lab::writeFile(dataFolder() + '/' + name, content);
}

QVector<QStringList> calls(const QString &tool)
{
    QProcess python;
    python.start("/usr/bin/python3",
                 {"-SEc",
                  "import json, shlex, sys\n"
                  "print(json.dumps([shlex.split(line) for line in open(sys.argv[1])]))",
                  state(tool + "/journal")});
    python.waitForFinished();
    QVector<QStringList> result;
    for (const QJsonValue &call : QJsonDocument::fromJson(python.readAllStandardOutput()).array())
        result.append(call.toVariant().toStringList());
    return result;
}

QStringList stateLines(const QString &name)
{
    return linesOf(state(name));
}

void setState(const QString &name, const QByteArray &content)
{
    lab::writeFile(state(name), content);
}

void writeTool(const QString &path, const QByteArray &script)
{
    QFile::remove(path); // which may be a link to a stand-in
    lab::writeFile(path, "#!/bin/bash\n" + script);
    QFile::setPermissions(path, QFile::ReadOwner | QFile::ExeOwner);
}

void wrapNetworksetup(const QByteArray &script)
{
    const QString tool = "/sbin/networksetup";
    QFile::rename(tool, tool + ".kept"); // unless it has been done before
    writeTool(tool, script);
}

bool isAlive(qint64 pid)
{
    // The state follows the name, which is in parentheses and may hold anything.
    const QByteArray stat = lab::contentOf(QString("/proc/%1/stat").arg(pid));
    return !stat.isEmpty() && stat.mid(stat.lastIndexOf(')') + 2, 1) != "Z";
}

} // namespace standins
