#include "standins.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QDir>
#include <QtCore/QEvent>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QThread>

#include <csignal>
#include <unistd.h>

namespace {

QString state(const QString &name)
{
    return QStringLiteral("/var/root/stand-ins/") + name;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList linesOf(const QString &path)
{
    return QString::fromUtf8(contentOf(path)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void networksetup(const QStringList &arguments)
{
    QProcess::execute(QStringLiteral("/sbin/networksetup"), arguments);
}

} // namespace

namespace standins {

QVector<OpenvpnStart> openvpnStarts()
{
    QVector<OpenvpnStart> starts;
    for (const QString &line : linesOf(state(QStringLiteral("openvpn/journal")))) {
        // "PID 'program' 'argument'..." is a start; other lines say what became of it.
        if (!line.contains(QLatin1String(" '")))
            continue;
        OpenvpnStart start;
        start.pid = line.section(QLatin1Char(' '), 0, 0).toLongLong();
        start.arguments = line.section(QLatin1Char('\''), 1, -2).split(QStringLiteral("' '"));
        starts.append(start);
    }
    return starts;
}

int runningOpenvpns()
{
    int running = 0;
    for (const OpenvpnStart &start : openvpnStarts())
        running += isAlive(start.pid);
    return running;
}

QByteArray configurationOf(const OpenvpnStart &start)
{
    return contentOf(state(QStringLiteral("openvpn/config.%1").arg(start.pid)));
}

QByteArray configurationModeOf(const OpenvpnStart &start)
{
    return contentOf(state(QStringLiteral("openvpn/mode.%1").arg(start.pid))).trimmed();
}

VpnServerInformation serverFor(const QString &scenario)
{
    VpnServerInformation server;
    server.host = scenario;
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

QStringList dnsServers(const QString &service)
{
    return linesOf(state(QStringLiteral("networksetup/dns_%1").arg(service)));
}

QStringList searchDomains(const QString &service)
{
    return linesOf(state(QStringLiteral("networksetup/search_%1").arg(service)));
}

void setDns(const QString &service, const QStringList &servers, const QStringList &domains)
{
    networksetup(QStringList{QStringLiteral("-setdnsservers"), service} + servers);
    networksetup(QStringList{QStringLiteral("-setsearchdomains"), service} + domains);
}

QStringList networksetupCalls()
{
    return linesOf(state(QStringLiteral("networksetup/journal")));
}

QString dataFolder()
{
    return QStringLiteral("/var/root/Library/Preferences/talvexvpnd/data");
}

QStringList backupFiles()
{
    return QDir(dataFolder()).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

void writeBackup(const QString &name, const QByteArray &content)
{
    QDir().mkpath(dataFolder());
    QFile file(dataFolder() + QLatin1Char('/') + name);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write the backup file %s", qPrintable(file.fileName()));
}

QVector<QStringList> calls(const QString &tool)
{
    // Only bash reads what bash has quoted. It answers with the number of arguments and then these,
    // each ended by a zero byte.
    const QString reader = QStringLiteral(R"bash(while read -r line; do
        eval "arguments=($line)"
        printf '%s\0' "${#arguments[@]}" "${arguments[@]}"
    done <"$0")bash");
    QProcess bash;
    bash.start(QStringLiteral("/bin/bash"),
               {QStringLiteral("-c"), reader, state(tool + QStringLiteral("/journal"))});
    bash.waitForFinished();
    const QList<QByteArray> words = bash.readAllStandardOutput().split('\0');

    QVector<QStringList> result;
    for (int i = 0; i + 1 < words.size();) {
        QStringList call;
        for (int count = words[i++].toInt(); count > 0; --count)
            call.append(QString::fromUtf8(words[i++]));
        result.append(call);
    }
    return result;
}

QStringList stateLines(const QString &name)
{
    return linesOf(state(name));
}

void setState(const QString &name, const QByteArray &content)
{
    const QString path = state(name);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write the state %s", qPrintable(path));
}

void removeState(const QString &name)
{
    if (!QFile::remove(state(name)))
        qFatal("there is no state %s", qPrintable(name));
}

void endHangingTool(const QString &name)
{
    const pid_t tool = contentOf(state(name)).trimmed().toInt();
    if (tool <= 1 || ::kill(tool, SIGKILL) != 0)
        qFatal("there is no hanging tool of %s", qPrintable(name));
    // A process that has ended is in this list until its object knows.
    const QString children = QStringLiteral("/proc/self/task/%1/children").arg(getpid());
    const QDeadlineTimer deadline(std::chrono::seconds(10));
    while (!contentOf(children).isEmpty() && !deadline.hasExpired()) {
        QCoreApplication::processEvents();
        QThread::msleep(10);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void forgetState()
{
    QDir(state(QString())).removeRecursively();
}

bool isAlive(qint64 pid)
{
    // The state follows the name, which is in parentheses and may hold anything.
    const QByteArray stat = contentOf(QStringLiteral("/proc/%1/stat").arg(pid));
    return !stat.isEmpty() && stat.mid(stat.lastIndexOf(')') + 2, 1) != "Z";
}

} // namespace standins
