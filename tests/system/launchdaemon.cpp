#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "standins.h"

#include <QtCore/QProcess>
#include <QtCore/QXmlStreamReader>
#include <QtNetwork/QLocalSocket>
#include <QtTest/QtTest>

#include <csignal>
#include <memory>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace {

const QString kPlist = QStringLiteral(TALVEX_PACKAGING "/TalvexVpnd.plist");

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// The property list as the system's own kind of reader understands it: through the binary form and
/// back to XML.
QByteArray throughTheBinaryForm(const QString &path)
{
    QProcess plistutil;
    plistutil.start(QStringLiteral("/bin/bash"),
                    {QStringLiteral("-c"),
                     QStringLiteral("set -e; plistutil -i \"$0\" -o /tmp/binary -f bin; "
                                    "plistutil -i /tmp/binary -f xml; rm /tmp/binary"),
                     path});
    plistutil.waitForFinished();
    if (plistutil.exitCode() != 0)
        qFatal("plistutil: %s", plistutil.readAllStandardError().constData());
    return plistutil.readAllStandardOutput();
}

QVariant readValue(QXmlStreamReader &xml)
{
    const auto type = xml.name().toString();
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

QVariantMap readPlist()
{
    QXmlStreamReader xml(throughTheBinaryForm(kPlist));
    xml.readNextStartElement(); // plist
    xml.readNextStartElement();
    const QVariantMap job = readValue(xml).toMap();
    if (xml.hasError())
        qFatal("the property list cannot be read: %s", qPrintable(xml.errorString()));
    return job;
}

void shell(const QString &script)
{
    if (QProcess::execute(QStringLiteral("/bin/bash"), {QStringLiteral("-ec"), script}) != 0)
        qFatal("failed: %s", qPrintable(script));
}

/// One run of the job, as launchd runs it: in a process group of its own, with the limits, the
/// environment and the log file that the property list names.
class Run : public QProcess
{
    Q_OBJECT

public:
    explicit Run(const QVariantMap &job)
        : m_limits{limit(job, QStringLiteral("SoftResourceLimits")),
                   limit(job, QStringLiteral("HardResourceLimits"))}
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("HOME"));
        environment.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin:/usr/sbin:/sbin"));
        const QVariantMap variables = job.value(QStringLiteral("EnvironmentVariables")).toMap();
        for (auto variable = variables.begin(); variable != variables.end(); ++variable)
            environment.insert(variable.key(), variable.value().toString());
        setProcessEnvironment(environment);
        setStandardErrorFile(job.value(QStringLiteral("StandardErrorPath")).toString(), Append);

        QStringList command = job.value(QStringLiteral("ProgramArguments")).toStringList();
        const QString program = command.takeFirst();
        start(program, command);
        waitForStarted();
        m_group = processId();
    }

    ~Run() override { crash(); }

    bool isServing()
    {
        QLocalSocket socket;
        socket.connectToServer(shared::getIpcServiceUrl());
        return state() == Running && socket.waitForConnected(100);
    }

    QByteArray procFile(const QString &name) const
    {
        return contentOf(QStringLiteral("/proc/%1/%2").arg(processId()).arg(name));
    }

    /// Kills the daemon, and then ends what is left of its process group, as launchd does.
    void crash()
    {
        QProcess::kill();
        waitForFinished();
        if (m_group > 0)
            ::kill(static_cast<pid_t>(-m_group), SIGTERM);
        m_group = 0;
    }

protected:
    void setupChildProcess() override
    {
        ::setpgid(0, 0);
        ::setrlimit(RLIMIT_NOFILE, &m_limits);
    }

private:
    static rlim_t limit(const QVariantMap &job, const QString &key)
    {
        return job.value(key).toMap().value(QStringLiteral("NumberOfFiles")).toUInt();
    }

    rlimit m_limits;
    qint64 m_group = 0;
};

} // namespace

/// What launchd is told about the daemon, and what comes of it.
class LaunchDaemon : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QDir().mkpath(QStringLiteral("/var/log")));
        const DaemonProcess installed; // puts the bundle in its place; not started
        m_job = readPlist();
    }

    void jobStartsAtLoadAndAgainWheneverItEnds()
    {
        QCOMPARE(m_job.value(QStringLiteral("RunAtLoad")), QVariant(true));
        QCOMPARE(m_job.value(QStringLiteral("KeepAlive")), QVariant(true));
        QCOMPARE(m_job.value(QStringLiteral("UserName")), QVariant(QStringLiteral("root")));
        QCOMPARE(m_job.value(QStringLiteral("AbandonProcessGroup")), QVariant(false));
        // Without it, the temporary folder of a launch daemon is root's own.
        QVERIFY(!m_job.value(QStringLiteral("EnvironmentVariables"))
                     .toMap()
                     .contains(QStringLiteral("TMPDIR")));
    }

    void applicationFindsTheJobByItsLabel()
    {
        QVERIFY(
            m_job.value(QStringLiteral("Label")).toString().contains(QStringLiteral("talvexvpnd")));
    }

    void installerUsesTheLabel()
    {
        const QByteArray job = "readonly job=system/"
            + m_job.value(QStringLiteral("Label")).toString().toUtf8() + '\n';
        QVERIFY(contentOf(QStringLiteral(TALVEX_PACKAGING "/install.sh")).contains(job));
        QVERIFY(contentOf(QStringLiteral(TALVEX_PACKAGING "/uninstall.sh")).contains(job));
    }

    void logIsTheFileThatTheInstallerMakes()
    {
        QCOMPARE(m_job.value(QStringLiteral("StandardErrorPath")),
                 QVariant(QStringLiteral("/var/log/talvexvpnd.log")));
    }

    void runServesClients()
    {
        Run run(m_job);
        QTRY_VERIFY(run.isServing());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(standins::serverFor(QStringLiteral("prints-at-once-success")));
        QTRY_COMPARE(client.outcome(), QStringLiteral("success"));
        QVERIFY(contentOf(m_job.value(QStringLiteral("StandardErrorPath")).toString())
                    .contains("Command status  \"connect\"\n"));
    }

    void daemonTakesTheShellsPlace()
    {
        Run run(m_job);
        QTRY_VERIFY(run.isServing());
        QCOMPARE(run.procFile(QStringLiteral("comm")), QByteArray("talvexvpnd\n"));
    }

    void homeIsRoots()
    {
        Run run(m_job);
        QTRY_VERIFY(run.isServing());
        QVERIFY(run.procFile(QStringLiteral("environ"))
                    .split('\0')
                    .contains(QByteArrayLiteral("HOME=/var/root")));
    }

    void afterAKillTheNextRunServesClients()
    {
        const QString service = QStringLiteral("Wi-Fi");
        const QStringList servers{QStringLiteral("192.0.2.53")};
        standins::setDns(service, servers, {QStringLiteral("home.example")});
        {
            Run run(m_job);
            QTRY_VERIFY(run.isServing());
            Client client;
            QVERIFY(client.attachToNewEndpoint());
            client.connectUdp(standins::serverFor(QStringLiteral("connects")));
            QTRY_COMPARE_WITH_TIMEOUT(client.outcome(), QStringLiteral("success"), 10'000);
            QVERIFY(standins::dnsServers(service) != servers);
            QCOMPARE(standins::runningOpenvpns(), 1);
            run.crash();
        }
        QTRY_COMPARE(standins::runningOpenvpns(), 0);
        QVERIFY(QFile::exists(shared::getIpcServiceUrl()));
        QVERIFY(QFile::exists(shared::getIpcProcessUrl(1)));

        Run next(m_job);
        QTRY_VERIFY(next.isServing());
        QVERIFY(!QFile::exists(shared::getIpcProcessUrl(1)));
        QCOMPARE(standins::dnsServers(service), servers);
        QCOMPARE(standins::backupFiles(), QStringList());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        QCOMPARE(client.endpoint(), 1);
        client.connectUdp(standins::serverFor(QStringLiteral("connects")));
        QTRY_COMPARE_WITH_TIMEOUT(client.outcome(), QStringLiteral("success"), 10'000);
    }

    void whateverHasTheNameIsCleared_data()
    {
        QTest::addColumn<QString>("script");
        QTest::newRow("plain file") << QStringLiteral("echo content >\"$name\"");
        QTest::newRow("folder") << QStringLiteral("mkdir -p \"$name/deep/er\"; date >\"$name/d\"");
        QTest::newRow("dangling link") << QStringLiteral("ln -s /nowhere/at-all \"$name\"");
        QTest::newRow("link to a folder") << QStringLiteral("ln -s /var/kept \"$name\"");
        QTest::newRow("somebody else's")
            << QStringLiteral("date >\"$name\"; chown 65534 \"$name\" || true; chmod 0 \"$name\"");
    }

    void whateverHasTheNameIsCleared()
    {
        QFETCH(QString, script);
        shell(QStringLiteral("mkdir -p /var/kept; date >/var/kept/file; name='%1'; "
                             "rm -rf \"$name\"; %2")
                  .arg(shared::getIpcServiceUrl(), script));
        Run run(m_job);
        QTRY_VERIFY(run.isServing());
        QVERIFY(QFile::exists(QStringLiteral("/var/kept/file")));
    }

    void otherNamesAreLeftAlone()
    {
        const QStringList others{QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterfaceX"),
                                 QStringLiteral("/tmp/local:Talvex"),
                                 QStringLiteral("/tmp/folder/local:TalvexFreeVpnIpcInterface_1")};
        shell(QStringLiteral("mkdir -p /tmp/folder; touch ") + others.join(QLatin1Char(' ')));
        Run run(m_job);
        QTRY_VERIFY(run.isServing());
        for (const QString &other : others)
            QVERIFY2(QFile::exists(other), qPrintable(other));
    }

    void moreClientsThanTheUsualLimitAreServed()
    {
        constexpr int kConnections = 1'500;
        const rlimit own{4'096, 4'096};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &own), 0);
        Run run(m_job);
        QTRY_VERIFY(run.isServing());
        std::vector<std::unique_ptr<QLocalSocket>> connections;
        for (int i = 0; i < kConnections; ++i) {
            connections.push_back(std::make_unique<QLocalSocket>());
            connections.back()->connectToServer(shared::getIpcServiceUrl());
            QVERIFY(connections.back()->waitForConnected(10'000));
        }
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.disconnectTunnel();
        QTRY_COMPARE(client.outcome(), QStringLiteral("success"));
    }

private:
    QVariantMap m_job;
};

QTEST_GUILESS_MAIN(LaunchDaemon)
#include "launchdaemon.moc"
