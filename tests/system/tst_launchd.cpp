#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "launchd.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

namespace {

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray packaged(const char *name)
{
    return contentOf(QStringLiteral(TALVEX_PACKAGING "/") + QLatin1String(name));
}

const QString kLauncher =
    QStringLiteral("/Library/Application Support/Talvex VPN Service/Talvex VPN Service");

bool shell(const QString &script)
{
    return QProcess::execute(QStringLiteral("/bin/bash"), {QStringLiteral("-ec"), script}) == 0;
}

} // namespace

/// What launchd is told about the daemon, and what comes of it. That the installer's launchctl
/// takes the property list is shown by the test `installation`.
class TestLaunchd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void jobRunsAsRootFromTheStartAndAgainWheneverItEnds()
    {
        const QVariantMap job = LaunchdJob().properties();
        QCOMPARE(job.value(QStringLiteral("RunAtLoad")), QVariant(true));
        // But not without the bundle, again and again.
        QCOMPARE(
            job.value(QStringLiteral("KeepAlive"))
                .toMap()
                .value(QStringLiteral("PathState"))
                .toMap(),
            (QVariantMap{{DaemonProcess::programFolder() + QStringLiteral("/talvexvpnd"), true}}));
        QCOMPARE(job.value(QStringLiteral("UserName")), QVariant(QStringLiteral("root")));
        QCOMPARE(job.value(QStringLiteral("AbandonProcessGroup")), QVariant(false));
        QCOMPARE(job.value(QStringLiteral("ProcessType")), QVariant(QStringLiteral("Interactive")));
        const QVariantMap files{{QStringLiteral("NumberOfFiles"), 8192}};
        QCOMPARE(job.value(QStringLiteral("SoftResourceLimits")).toMap(), files);
        QCOMPARE(job.value(QStringLiteral("HardResourceLimits")).toMap(), files);
        // Without TMPDIR, the temporary folder of a launch daemon is root's own.
        QCOMPARE(job.value(QStringLiteral("EnvironmentVariables")).toMap().keys(),
                 (QStringList{QStringLiteral("HOME"), QStringLiteral("QT_FORCE_STDERR_LOGGING"),
                              QStringLiteral("QT_MESSAGE_PATTERN")}));
    }

    void settingsAreLookedAfterWhileThereAreBackups()
    {
        const QVariantMap job = LaunchdJob::propertiesIn(QStringLiteral("TalvexRestore.plist"));
        QCOMPARE(job.value(QStringLiteral("QueueDirectories")).toStringList(),
                 QStringList{standins::dataFolder()});
        QCOMPARE(job.value(QStringLiteral("ThrottleInterval")), QVariant(60));
        QCOMPARE(job.value(QStringLiteral("ProgramArguments")).toStringList(),
                 (QStringList{kLauncher, QStringLiteral("restore")}));
    }

    void settingsComeBackWhenNoDaemonWillGiveThemBack_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<bool>("isRestored");
        const QString noBundle = QStringLiteral("rm -r /Applications/*; ");
        const QString noJob = QStringLiteral("launchctl list >/dev/null; ");
        const QString job = QStringLiteral(
            "printf '%s\\t0\\tcom.talvex.talvexvpnd\\n' - >/var/root/stand-ins/launchctl/jobs; ");
        const QString daemon =
            QStringLiteral("cp /usr/bin/sleep /tmp/talvexvpnd; /tmp/talvexvpnd 5 & "
                           "until [[ $(ps -axo comm=) == *talvexvpnd* ]]; do sleep 0.01; done; ");
        QTest::newRow("bundle gone") << noJob + job + noBundle << true;
        QTest::newRow("job off") << noJob << true;
        QTest::newRow("daemon between two runs") << noJob + job << false;
        QTest::newRow("daemon runs on without its bundle") << daemon + noBundle << false;
    }

    void settingsComeBackWhenNoDaemonWillGiveThemBack()
    {
        QFETCH(QString, script);
        QFETCH(bool, isRestored);
        const LaunchdJob installed;
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.53\n");
        QVERIFY(
            shell(script + QStringLiteral("'%1' restore; kill %% 2>&- || true").arg(kLauncher)));
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 isRestored ? QStringList{QStringLiteral("192.0.2.53")} : QStringList());
        QCOMPARE(standins::backupFiles().isEmpty(), isRestored);
    }

    void startWithoutTheBundleEndsAtOnce()
    {
        LaunchdJob job;
        QVERIFY(shell(QStringLiteral("rm -r /Applications/*")));
        QVERIFY(job.startOnly());
        QVERIFY(job.waitForFinished());
        QCOMPARE(job.exitCode(), 0);
        QCOMPARE(job.log(), QByteArray());
    }

    void labelIsTheOneThatOthersUse()
    {
        // The application searches what launchctl lists for "talvexvpnd".
        QCOMPARE(LaunchdJob().properties().value(QStringLiteral("Label")),
                 QVariant(QStringLiteral("com.talvex.talvexvpnd")));
        QVERIFY(
            packaged("installation.bash").contains("readonly job=system/com.talvex.talvexvpnd\n"));
        QVERIFY(packaged("launcher").contains("readonly job=system/com.talvex.talvexvpnd\n"));
        QCOMPARE(LaunchdJob::propertiesIn(QStringLiteral("TalvexRestore.plist"))
                     .value(QStringLiteral("Label")),
                 QVariant(QStringLiteral("com.talvex.restore")));
        QVERIFY(packaged("installation.bash")
                    .contains("readonly restoreJob=system/com.talvex.restore\n"));
    }

    void logIsTheFileThatTheInstallerMakes()
    {
        QCOMPARE(LaunchdJob().properties().value(QStringLiteral("StandardErrorPath")),
                 QVariant(QStringLiteral("/var/log/talvexvpnd.log")));
        QVERIFY(packaged("installation.bash").contains("readonly log=/var/log/talvexvpnd.log\n"));
    }

    void runServesClients()
    {
        LaunchdJob job;
        QVERIFY(job.run());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.disconnectTunnel();
        QTRY_COMPARE(client.outcome(), QStringLiteral("success"));
        // With the time.
        QVERIFY(
            QRegularExpression(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} "
                                              "result params  \"disconnect\"$"),
                               QRegularExpression::MultilineOption)
                .match(QString::fromUtf8(job.log()))
                .hasMatch());
        // It has taken the launcher's place, so launchd watches the daemon itself.
        const QString process = QStringLiteral("/proc/%1/").arg(job.processId());
        QCOMPARE(contentOf(process + QStringLiteral("comm")), QByteArray("talvexvpnd\n"));
        QVERIFY(contentOf(process + QStringLiteral("environ"))
                    .split('\0')
                    .contains(QByteArrayLiteral("HOME=/var/root")));
    }

    void socketsOfADaemonThatDiedAreCleared()
    {
        LaunchdJob job;
        QVERIFY(job.run());
        {
            Client client;
            QVERIFY(client.attachToNewEndpoint());
        }
        QVERIFY(job.crash());
        QVERIFY(QFile::exists(shared::getIpcServiceUrl()));
        QVERIFY(QFile::exists(shared::getIpcProcessUrl(1)));
        QVERIFY(job.run());
        QVERIFY(!QFile::exists(shared::getIpcProcessUrl(1)));
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        QCOMPARE(client.endpoint(), 1);
    }

    void whateverHasTheNameIsCleared_data()
    {
        QTest::addColumn<QString>("script");
        QTest::newRow("plain file") << QStringLiteral("echo content >\"$name\"");
        QTest::newRow("folder") << QStringLiteral("mkdir -p \"$name/deep/er\"; date >\"$name/d\"");
        QTest::newRow("folder at an endpoint's name")
            << QStringLiteral("mkdir -p \"${name}_1/deep/er\"; date >\"${name}_1/d\"");
        QTest::newRow("dangling link") << QStringLiteral("ln -s /nowhere/at-all \"$name\"");
        QTest::newRow("link to a folder") << QStringLiteral("ln -s /tmp/kept \"$name\"");
        QTest::newRow("somebody else's")
            << QStringLiteral("date >\"$name\"; chown 65534 \"$name\" || true; chmod 0 \"$name\"");
    }

    void whateverHasTheNameIsCleared()
    {
        QFETCH(QString, script);
        QVERIFY(shell(QStringLiteral("mkdir /tmp/kept; date >/tmp/kept/file; name='%1'; %2")
                          .arg(shared::getIpcServiceUrl(), script)));
        LaunchdJob job;
        QVERIFY(job.run());
        QVERIFY(!QFile::exists(shared::getIpcProcessUrl(1)));
        QVERIFY(QFile::exists(QStringLiteral("/tmp/kept/file")));
    }

    void otherNamesAreLeftAlone()
    {
        const QStringList others{QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterfaceX"),
                                 QStringLiteral("/tmp/local:Talvex"),
                                 QStringLiteral("/tmp/folder/local:TalvexFreeVpnIpcInterface_1")};
        QVERIFY(
            shell(QStringLiteral("mkdir -p /tmp/folder; touch ") + others.join(QLatin1Char(' '))));
        LaunchdJob job;
        QVERIFY(job.run());
        for (const QString &other : others)
            QVERIFY2(QFile::exists(other), qPrintable(other));
    }
};

QTEST_GUILESS_MAIN(TestLaunchd)
#include "tst_launchd.moc"
