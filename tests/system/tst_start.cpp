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

/// Runs a command of bash, for which "$0" is the name of the main socket.
void shell(const QString &command)
{
    QCOMPARE(QProcess::execute(QStringLiteral("/bin/bash"),
                               {QStringLiteral("-c"), command, shared::getIpcServiceUrl()}),
             0);
}

} // namespace

/// What the daemon does from its start until it listens, and what it says meanwhile.
class TestStart : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void firstLinesTellTheDataFolderAndItsState_data()
    {
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("secondLine");
        QTest::newRow("first start") << ""
                                     << "\"\"";
        QTest::newRow("later start") << "mkdir -p /var/root/Library/Preferences/talvexvpnd/data"
                                     << "\"\"";
        QTest::newRow("something is in the way")
            << "rm -r /var/root/Library; touch /var/root/Library"
            << "Directory isn't created";
    }

    void firstLinesTellTheDataFolderAndItsState()
    {
        QFETCH(QString, before);
        QFETCH(QString, secondLine);
        shell(before);
        DaemonProcess daemon;
        // Neither arguments nor the name of the program matter: within a bundle, macOS would have
        // the daemon's name from the client.
        daemon.setWrapper({QStringLiteral("/bin/bash"), QStringLiteral("-c"),
                           QStringLiteral("exec -a Client \"$0\" --help --version nonsense")});
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(
            daemon.log().mid(0, 2),
            (QStringList{QStringLiteral("\"/var/root/Library/Preferences/talvexvpnd/data\""),
                         secondLine}));
        QTRY_COMPARE(daemon.count(QStringLiteral("check DNS result  true")), 1);
        QTRY_VERIFY(inodeOfTheSocket() != 0);
        QVERIFY(Client().connectToMainSocket());
    }

    void dnsIsRestoredBeforeTheDaemonListens()
    {
        standins::setDns(QStringLiteral("Wi-Fi"), {QStringLiteral("10.8.0.1")},
                         {QStringLiteral("tunnel.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1 192.0.2.2\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Wi-Fi"), "Empty\n");
        // In front of networksetup: it looks whether there is a socket already, and takes its time.
        shell(QStringLiteral("mv /sbin/networksetup{,.kept} && cat >/sbin/networksetup <<'TOOL'\n"
                             "#!/bin/bash\n"
                             "sleep 0.2; ls /tmp/local:* >>/tmp/seen 2>/dev/null\n"
                             "echo called >>/tmp/seen; exec \"$0.kept\" \"$@\"\n"
                             "TOOL\n"
                             "chmod 700 /sbin/networksetup"));
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
        shell(QStringLiteral("mv /sbin/networksetup{.kept,}"));
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
        shell(QStringLiteral(
            "touch /tmp/talvexvpnd.AbCdEf /tmp/talvexvpnd.AbCdEfG /tmp/other.AbCdEf"));
        if (isNameTaken)
            QVERIFY(QFile::link(QStringLiteral("/nothing"), shared::getIpcServiceUrl()));
        DaemonProcess daemon;
        QVERIFY(isNameTaken ? daemon.startOnly() : daemon.start());
        QTRY_VERIFY(!isNameTaken || daemon.count(kListenFailure) == 1);
        QCOMPARE(QFile::exists(QStringLiteral("/tmp/talvexvpnd.AbCdEf")), isNameTaken);
        QVERIFY(QFile::exists(QStringLiteral("/tmp/talvexvpnd.AbCdEfG")));
        QVERIFY(QFile::exists(QStringLiteral("/tmp/other.AbCdEf")));
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
        QTest::newRow("socket of a daemon that died") << "";
        QTest::newRow("folder") << "mkdir \"$0\"";
        QTest::newRow("plain file") << "echo kept >\"$0\"";
        QTest::newRow("dangling link") << "ln -s /nowhere/at-all \"$0\"";
    }

    void takenNameMakesTheListenFail()
    {
        QFETCH(QString, command);
        if (command.isEmpty())
            QVERIFY(DaemonProcess().start()); // which is killed at once
        else
            shell(command);
        const ino_t inode = inodeOfTheSocket();
        QVERIFY(inode != 0);
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(daemon.count(kListenFailure), 1);
        QVERIFY(daemon.isRunning());
        QCOMPARE(inodeOfTheSocket(), inode);
    }
};

QTEST_GUILESS_MAIN(TestStart)
#include "tst_start.moc"
