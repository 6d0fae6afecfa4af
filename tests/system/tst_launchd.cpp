#include "client.h"
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
        QCOMPARE(job.value(QStringLiteral("KeepAlive")), QVariant(true));
        QCOMPARE(job.value(QStringLiteral("UserName")), QVariant(QStringLiteral("root")));
        QCOMPARE(job.value(QStringLiteral("AbandonProcessGroup")), QVariant(false));
        const QVariantMap files{{QStringLiteral("NumberOfFiles"), 8192}};
        QCOMPARE(job.value(QStringLiteral("SoftResourceLimits")).toMap(), files);
        QCOMPARE(job.value(QStringLiteral("HardResourceLimits")).toMap(), files);
        // Without TMPDIR, the temporary folder of a launch daemon is root's own.
        QCOMPARE(job.value(QStringLiteral("EnvironmentVariables")).toMap().keys(),
                 (QStringList{QStringLiteral("HOME"), QStringLiteral("QT_FORCE_STDERR_LOGGING")}));
    }

    void labelIsTheOneThatOthersUse()
    {
        // The application searches what launchctl lists for "talvexvpnd".
        QCOMPARE(LaunchdJob().properties().value(QStringLiteral("Label")),
                 QVariant(QStringLiteral("com.talvex.talvexvpnd")));
        for (const char *script : {"install.sh", "uninstall.sh"})
            QVERIFY2(packaged(script).contains("readonly job=system/com.talvex.talvexvpnd\n"),
                     script);
    }

    void logIsTheFileThatTheInstallerMakes()
    {
        QCOMPARE(LaunchdJob().properties().value(QStringLiteral("StandardErrorPath")),
                 QVariant(QStringLiteral("/var/log/talvexvpnd.log")));
        QVERIFY(packaged("install.sh").contains(" /dev/null /var/log/talvexvpnd.log\n"));
    }

    void runServesClients()
    {
        LaunchdJob job;
        QVERIFY(job.run());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.disconnectTunnel();
        QTRY_COMPARE(client.outcome(), QStringLiteral("success"));
        QVERIFY(job.log().contains("result params  \"disconnect\"\n"));
        // It has taken the shell's place, so launchd watches the daemon itself.
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
