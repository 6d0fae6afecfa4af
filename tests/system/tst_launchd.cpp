#include "client.h"
#include "files.h"
#include "ipcurls.h"
#include "launchd.h"
#include "privateroot.h"

#include <QtTest/QtTest>

namespace {

bool shell(const QString &script)
{
    return QProcess::execute(QStringLiteral("/bin/bash"), {QStringLiteral("-ec"), script}) == 0;
}

} // namespace

/// What launchd starts. How it does that, and what else the jobs are for, the tests `installation`
/// and `tryonmac` show.
class TestLaunchd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void startWithoutTheBundleEndsAtOnce()
    {
        LaunchdJob job;
        QVERIFY(shell(QStringLiteral("rm -r /Applications/*")));
        QVERIFY(job.startOnly());
        QVERIFY(job.waitForFinished());
        QCOMPARE(job.exitCode(), 0);
        QCOMPARE(job.log(), QByteArray());
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
        QCOMPARE(lab::contentOf(process + QStringLiteral("comm")), QByteArray("talvexvpnd\n"));
        QVERIFY(lab::contentOf(process + QStringLiteral("environ"))
                    .split('\0')
                    .contains(QByteArrayLiteral("HOME=/var/root")));
        QVERIFY(QRegularExpression(QStringLiteral("^Max open files +8192 +8192 "),
                                   QRegularExpression::MultilineOption)
                    .match(QString::fromUtf8(lab::contentOf(process + QStringLiteral("limits"))))
                    .hasMatch());
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
