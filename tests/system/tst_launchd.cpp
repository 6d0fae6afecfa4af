#include "client.h"
#include "files.h"
#include "ipcurls.h"
#include "launchd.h"
#include "privateroot.h"

#include <QtTest/QtTest>

namespace {

bool shell(const QString &script)
{
    return QProcess::execute("/bin/bash", {"-ec", script}) == 0;
}

bool hasLine(const QByteArray &text, const QString &pattern)
{
    return QRegularExpression('^' + pattern + '$', QRegularExpression::MultilineOption)
        .match(QString::fromUtf8(text))
        .hasMatch();
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
        QVERIFY(shell("rm -r /Applications/*"));
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
        QTRY_COMPARE(client.outcome(), "success");
        QVERIFY(hasLine(job.log(),
                        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} "
                        "result params  \"disconnect\""));
        // It has taken the launcher's place, so launchd watches the daemon itself.
        const QString process = QString("/proc/%1/").arg(job.processId());
        QCOMPARE(lab::contentOf(process + "comm"), QByteArray("talvexvpnd\n"));
        QVERIFY(lab::contentOf(process + "environ")
                    .split('\0')
                    .contains(QByteArrayLiteral("HOME=/var/root")));
        QVERIFY(hasLine(lab::contentOf(process + "limits"), "Max open files +8192 +8192 .*"));
    }

    void whateverHasTheNameIsClearedAndNothingElse_data()
    {
        QTest::addColumn<QString>("script");
        const auto row = [](const char *name, const char *script) {
            QTest::newRow(name) << script;
        };
        row("plain file", "echo content >$name");
        row("folder", "mkdir -p $name/deep/er; date >$name/d");
        row("folder at an endpoint's name", "mkdir -p ${name}_1/deep/er; date >${name}_1/d");
        row("dangling link", "ln -s /nowhere/at-all $name");
        row("link to a folder", "ln -s /tmp/kept $name");
        row("somebody else's", "date >$name; chown 65534 $name || true; chmod 0 $name");
    }

    void whateverHasTheNameIsClearedAndNothingElse()
    {
        QFETCH(QString, script);
        const QString name = shared::getIpcServiceUrl();
        const QStringList others{name + 'X', "/tmp/local:Talvex", "/tmp/kept" + name.mid(4)};
        QVERIFY(shell(
            QString("mkdir /tmp/kept; touch %1; name=%2; %3").arg(others.join(' '), name, script)));
        LaunchdJob job;
        QVERIFY(job.run());
        QVERIFY(!QFile::exists(shared::getIpcProcessUrl(1)));
        for (const QString &other : others)
            QVERIFY2(QFile::exists(other), qPrintable(other));
    }

    void socketsOfADaemonThatDiedAreCleared()
    {
        LaunchdJob job;
        QVERIFY(job.run());
        QVERIFY(Client().attachToNewEndpoint());
        QVERIFY(job.crash());
        QVERIFY(QFile::exists(shared::getIpcProcessUrl(1)));
        QVERIFY(job.run());
        QVERIFY(!QFile::exists(shared::getIpcProcessUrl(1)));
        QVERIFY(Client().attachToNewEndpoint());
    }

    /// A client tries to fill the disk.
    void logStaysWithin32MiBAndGoesOn()
    {
        LaunchdJob job;
        QVERIFY(job.run());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        // Each of these characters has two bytes in a frame and six in the log: "\u200B".
        const QString flood = QString("{\"type\":\"%1\"}").arg(QString(120'000, QChar(0x200b)));
        qint64 greatest = 0;
        for (int i = 0; i < 120; ++i) {
            client.send(flood);
            while (client.endpointSocket().bytesToWrite() > 0)
                QVERIFY(client.endpointSocket().waitForBytesWritten(5'000));
            greatest = std::max(greatest, QFileInfo("/var/log/talvexvpnd.log").size());
        }
        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), 1);
        const QByteArray log = job.log();
        greatest = std::max(greatest, qint64(log.size()));
        QVERIFY2(greatest > 16'777'216 && greatest <= 33'554'432,
                 qPrintable(QString::number(greatest)));
        QVERIFY(log.left(100).contains("Older lines were removed: the log was full\n"));
        QVERIFY(log.lastIndexOf(" Send command service ")
                > log.lastIndexOf(" result params  \"disconnect\"\n"));
    }
};

QTEST_GUILESS_MAIN(TestLaunchd)
#include "tst_launchd.moc"
