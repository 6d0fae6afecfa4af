#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <sys/stat.h>

namespace {

const QString kListenFailure = QStringLiteral(
    "\"Unable to start the server: QLocalServer::listen: Address in use. LocalServer\"");

ino_t inodeOfTheSocket()
{
    struct stat status = {};
    return ::lstat("/tmp/local:TalvexFreeVpnIpcInterface", &status) == 0 ? status.st_ino : 0;
}

} // namespace

/// What the daemon does from its start until it listens, and what it says meanwhile.
class TestStart : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void firstStartCreatesTheDataFolderAndChecksDns()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_VERIFY(inodeOfTheSocket() != 0);
        QTRY_COMPARE(
            daemon.log(),
            (QStringList{QStringLiteral("\"/var/root/Library/Preferences/talvexvpnd/data\""),
                         QStringLiteral("\"\""), QStringLiteral("check DNS result  true")}));
        QVERIFY(QDir(standins::dataFolder()).exists());
    }

    void existingDataFolderIsFine()
    {
        QVERIFY(QDir().mkpath(standins::dataFolder()));
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(daemon.count(QStringLiteral("check DNS result  true")), 1);
        QCOMPARE(daemon.count(QStringLiteral("Directory isn't created")), 0);
    }

    void dataFolderThatCannotBeCreatedStopsNothing()
    {
        QFile inTheWay(QStringLiteral("/var/root/Library"));
        QVERIFY(inTheWay.open(QIODevice::WriteOnly));
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_VERIFY(inodeOfTheSocket() != 0);
        QTRY_COMPARE(daemon.log().value(1), QStringLiteral("Directory isn't created"));
        Client client;
        QVERIFY(client.attachToNewEndpoint());
    }

    void dnsIsRestoredBeforeTheDaemonListens()
    {
        standins::setDns(QStringLiteral("Wi-Fi"), {QStringLiteral("10.8.0.1")},
                         {QStringLiteral("tunnel.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1 192.0.2.2\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Wi-Fi"), "Empty\n");
        // In front of networksetup: it looks whether there is a socket already, and takes its time.
        const QString tool = QStringLiteral("/sbin/networksetup");
        QVERIFY(QFile::rename(tool, tool + QStringLiteral(".kept")));
        QFile watcher(tool);
        QVERIFY(watcher.open(QIODevice::WriteOnly));
        watcher.write("#!/bin/bash\nsleep 0.2\nls /tmp/local:* >>/tmp/seen 2>/dev/null\n"
                      "echo called >>/tmp/seen\nexec \"$0.kept\" \"$@\"\n");
        watcher.close();
        QVERIFY(watcher.setPermissions(QFile::ReadOwner | QFile::ExeOwner));

        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 (QStringList{QStringLiteral("192.0.2.1"), QStringLiteral("192.0.2.2")}));
        QCOMPARE(standins::searchDomains(QStringLiteral("Wi-Fi")), QStringList());
        QCOMPARE(standins::backupFiles(), QStringList());
        QFile seen(QStringLiteral("/tmp/seen"));
        QVERIFY(seen.open(QIODevice::ReadOnly));
        const QByteArray text = seen.readAll();
        QVERIFY(text.startsWith("called\ncalled\n"));
        QVERIFY2(!text.contains("local:"), text.constData());

        QVERIFY(QFile::remove(tool));
        QVERIFY(QFile::rename(tool + QStringLiteral(".kept"), tool));
    }

    void configurationFilesThatAKillLeftAreRemoved_data()
    {
        QTest::addColumn<bool>("isNameTaken");
        QTest::newRow("no daemon lives") << false;
        QTest::newRow("one may live") << true;
    }

    void configurationFilesThatAKillLeftAreRemoved()
    {
        QFETCH(bool, isNameTaken);
        const QStringList left{QStringLiteral("/tmp/talvexvpnd.AbCdEf")};
        const QStringList others{QStringLiteral("/tmp/talvexvpnd.AbCdEfG"),
                                 QStringLiteral("/tmp/another.AbCdEf")};
        for (const QString &path : left + others) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        if (isNameTaken)
            QVERIFY(QFile::link(QStringLiteral("/nothing"), shared::getIpcServiceUrl()));
        DaemonProcess daemon;
        QVERIFY(isNameTaken ? daemon.startOnly() : daemon.start());
        QTRY_VERIFY(!isNameTaken
                    || !daemon.linesWith(QStringLiteral("\"Unable to start")).isEmpty());
        QCOMPARE(QFile::exists(left.first()), isNameTaken);
        for (const QString &path : others)
            QVERIFY(QFile::exists(path));
    }

    void secondDaemonLogsAndIdlesWhileTheFirstServesOn()
    {
        DaemonProcess first;
        QVERIFY(first.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        const ino_t inode = inodeOfTheSocket();

        DaemonProcess second;
        QVERIFY(second.startOnly());
        QTRY_COMPARE(second.count(kListenFailure), 1);
        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), 1);
        Client late;
        QVERIFY(late.attachToNewEndpoint());
        QCOMPARE(late.endpoint(), 2);

        QVERIFY(second.isRunning());
        second.kill();
        QCOMPARE(inodeOfTheSocket(), inode);
    }

    void takenNameMakesTheListenFail_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("socket of a daemon that died") << QString();
        QTest::newRow("folder") << QStringLiteral("mkdir \"$0\"");
        QTest::newRow("plain file") << QStringLiteral("echo kept >\"$0\"");
        QTest::newRow("dangling link") << QStringLiteral("ln -s /nowhere/at-all \"$0\"");
    }

    void takenNameMakesTheListenFail()
    {
        QFETCH(QString, command);
        if (command.isEmpty()) {
            DaemonProcess killed;
            QVERIFY(killed.start());
        } else {
            QCOMPARE(QProcess::execute(QStringLiteral("/bin/bash"),
                                       {QStringLiteral("-c"), command, shared::getIpcServiceUrl()}),
                     0);
        }
        const ino_t inode = inodeOfTheSocket();
        QVERIFY(inode != 0);
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(daemon.count(kListenFailure), 1);
        QVERIFY(daemon.isRunning());
        QCOMPARE(inodeOfTheSocket(), inode);
    }

    void neitherArgumentsNorTheNameOfTheProgramMatter()
    {
        // Within a bundle, macOS would have the daemon's name from the client.
        DaemonProcess daemon;
        daemon.setWrapper({QStringLiteral("/bin/bash"), QStringLiteral("-c"),
                           QStringLiteral("exec -a Client \"$0\" --help --version nonsense")});
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(daemon.log().value(0),
                     QStringLiteral("\"/var/root/Library/Preferences/talvexvpnd/data\""));
        QTRY_VERIFY(inodeOfTheSocket() != 0);
    }
};

QTEST_GUILESS_MAIN(TestStart)
#include "tst_start.moc"
