#include "launchd.h"

#include "daemonprocess.h"
#include "ipcurls.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QDir>
#include <QtCore/QThread>
#include <QtCore/QXmlStreamReader>
#include <QtNetwork/QLocalSocket>

#include <csignal>

#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr int kLimitMs = 20'000;

/// What launchd leaves a process group between SIGTERM and SIGKILL. How much a script gets done
/// meanwhile is up to the machine.
constexpr unsigned long kGraceMs = 20;

QVariant readValue(QXmlStreamReader &xml)
{
    const QString type = xml.name().toString();
    if (type == QLatin1String("dict")) {
        QVariantMap map;
        while (xml.readNextStartElement()) {
            const QString key = xml.readElementText();
            xml.readNextStartElement();
            map.insert(key, readValue(xml));
        }
        return map;
    }
    if (type == QLatin1String("array")) {
        QVariantList list;
        while (xml.readNextStartElement())
            list.append(readValue(xml));
        return list;
    }
    const QString text = xml.readElementText();
    if (type == QLatin1String("integer"))
        return text.toInt();
    if (type == QLatin1String("string"))
        return text;
    return type == QLatin1String("true");
}

void installProgram(const QString &from, const QString &to)
{
    QFile::remove(to);
    if (!QFile::copy(from, to))
        qFatal("cannot copy %s to %s", qPrintable(from), qPrintable(to));
}

bool isServing()
{
    QLocalSocket socket;
    socket.connectToServer(shared::getIpcServiceUrl());
    return socket.waitForConnected(100);
}

} // namespace

QVariantMap LaunchdJob::propertiesIn(const QString &name)
{
    QFile file(QStringLiteral(TALVEX_PACKAGING "/") + name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(file.fileName()));
    QXmlStreamReader xml(&file);
    xml.readNextStartElement(); // plist
    xml.readNextStartElement();
    const QVariantMap properties = readValue(xml).toMap();
    if (xml.hasError())
        qFatal("%s: %s", qPrintable(file.fileName()), qPrintable(xml.errorString()));
    return properties;
}

LaunchdJob::LaunchdJob()
    : m_properties(propertiesIn(QStringLiteral("TalvexVpnd.plist")))
{
    const DaemonProcess installed; // which is not started, but lies in its place
    QDir().mkpath(QStringLiteral("/var/log"));
    const QString support = QStringLiteral("/Library/Application Support/Talvex VPN Service/");
    QDir().mkpath(support);
    installProgram(QStringLiteral(TALVEX_PACKAGING "/launcher"),
                   support + QStringLiteral("Talvex VPN Service"));
    installProgram(QStringLiteral(TALVEX_RESOURCES "/update_conf_down"),
                   support + QStringLiteral("update_conf_down"));

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("HOME"));
    environment.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin:/usr/sbin:/sbin"));
    const auto variables = m_properties.value(QStringLiteral("EnvironmentVariables")).toMap();
    for (auto variable = variables.begin(); variable != variables.end(); ++variable)
        environment.insert(variable.key(), variable.value().toString());
    setProcessEnvironment(environment);
    setStandardErrorFile(m_properties.value(QStringLiteral("StandardErrorPath")).toString(),
                         Append);
}

LaunchdJob::~LaunchdJob()
{
    crash();
}

bool LaunchdJob::startOnly()
{
    QStringList command = m_properties.value(QStringLiteral("ProgramArguments")).toStringList();
    const QString program = command.takeFirst();
    start(program, command);
    if (!waitForStarted())
        return false;
    m_group = processId();
    return true;
}

bool LaunchdJob::run()
{
    if (!startOnly())
        return false;
    const QDeadlineTimer deadline(kLimitMs);
    while (!isServing()) {
        if (waitForFinished(20) || deadline.hasExpired())
            return false;
    }
    return true;
}

bool LaunchdJob::crash(Survivors survivors)
{
    QProcess::kill();
    waitForFinished();
    const auto group = static_cast<pid_t>(m_group);
    m_group = 0;
    if (survivors == Survivors::StayAlive || group == 0 || ::kill(-group, SIGTERM) != 0)
        return true;
    QThread::msleep(kGraceMs);
    const QDeadlineTimer deadline(kLimitMs);
    while (::kill(-group, SIGKILL) == 0) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(1);
    }
    return true;
}

QByteArray LaunchdJob::log() const
{
    QFile file(m_properties.value(QStringLiteral("StandardErrorPath")).toString());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void LaunchdJob::setupChildProcess()
{
    ::setpgid(0, 0);
    const auto filesOf = [this](const char *key) {
        return m_properties.value(QLatin1String(key))
            .toMap()
            .value(QStringLiteral("NumberOfFiles"))
            .toUInt();
    };
    const rlimit limits{filesOf("SoftResourceLimits"), filesOf("HardResourceLimits")};
    ::setrlimit(RLIMIT_NOFILE, &limits);
}
