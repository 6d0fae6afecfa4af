#include "client.h"
#include "daemonprocess.h"
#include "files.h"
#include "ipcurls.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <sys/stat.h>

namespace {

const QString kListenFailure =
    "\"Unable to start the server: QLocalServer::listen: Address in use. LocalServer\"";

ino_t inodeOfTheSocket()
{
    struct stat status = {};
    return ::lstat("/tmp/local:TalvexFreeVpnIpcInterface", &status) == 0 ? status.st_ino : 0;
}

/// Runs a command of bash, for which "$0" is the name of the main socket.
void shell(const QString &command)
{
    QCOMPARE(QProcess::execute("/bin/bash", {"-c", command, shared::getIpcServiceUrl()}), 0);
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
        const auto row = [](const char *name, const char *before, const char *secondLine) {
            QTest::newRow(name) << before << secondLine;
        };
        row("first start", "", "\"\"");
        row("later start, with a backup that cannot be applied",
            "folder=/var/root/Library/Preferences/talvexvpnd/data; mkdir -p $folder\n"
            "echo >$folder/TalvexFreeVPN_dns_Wi-Fi",
            "\"Usage: networksetup -setdnsservers <networkservice> <dns1> [dns2] [...]\\n\"");
        row("something is in the way", "touch /var/root/Library", "Directory isn't created");
    }

    void firstLinesTellTheDataFolderAndItsState()
    {
        QFETCH(QString, before);
        QFETCH(QString, secondLine);
        shell(before);
        DaemonProcess daemon;
        // Neither arguments nor the name of the program matter: within a bundle, macOS would have
        // the daemon's name from the client.
        daemon.setWrapper({"/bin/bash", "-c", "exec -a Client \"$0\" --help --version nonsense"});
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(
            daemon.log().mid(0, 2),
            (QStringList{"\"/var/root/Library/Preferences/talvexvpnd/data\"", secondLine}));
        QTRY_COMPARE(daemon.count("check DNS result  true"), 1);
        QTRY_VERIFY(inodeOfTheSocket() != 0);
        QVERIFY(Client().connectToMainSocket());
    }

    void dnsIsRestoredBeforeTheDaemonListens()
    {
        standins::setDns("Wi-Fi", {"10.8.0.1"}, {"tunnel.test"});
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "192.0.2.1 192.0.2.2\n");
        standins::writeBackup("TalvexFreeVPN_domain_Wi-Fi", "Empty\n");
        // Looks whether there is a socket already, and takes its time.
        standins::wrapNetworksetup("sleep 0.2; ls /tmp/local:* >>/tmp/seen 2>/dev/null\n"
                                   "echo called >>/tmp/seen; exec $0.kept \"$@\"\n");
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QCOMPARE(standins::dnsServers("Wi-Fi"), (QStringList{"192.0.2.1", "192.0.2.2"}));
        QCOMPARE(standins::searchDomains("Wi-Fi"), QStringList());
        QCOMPARE(standins::backupFiles(), QStringList());
        const QByteArray seen = lab::contentOf("/tmp/seen");
        QVERIFY(seen.startsWith("called\ncalled\n"));
        QVERIFY2(!seen.contains("local:"), seen.constData());
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
        shell("touch /tmp/talvexvpnd.AbCdEf /tmp/talvexvpnd.AbCdEfG /tmp/other.AbCdEf");
        if (isNameTaken)
            QVERIFY(QFile::link("/nothing", shared::getIpcServiceUrl()));
        DaemonProcess daemon;
        QVERIFY(isNameTaken ? daemon.startOnly() : daemon.start());
        QTRY_VERIFY(!isNameTaken || daemon.count(kListenFailure) == 1);
        QCOMPARE(QFile::exists("/tmp/talvexvpnd.AbCdEf"), isNameTaken);
        QVERIFY(QFile::exists("/tmp/talvexvpnd.AbCdEfG"));
        QVERIFY(QFile::exists("/tmp/other.AbCdEf"));
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

    void socketOfADaemonThatDiedMakesTheListenFail()
    {
        QVERIFY(DaemonProcess().start()); // which is killed at once
        const ino_t inode = inodeOfTheSocket();
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(daemon.count(kListenFailure), 1);
        QVERIFY(daemon.isRunning());
        QCOMPARE(inodeOfTheSocket(), inode);
    }
};

QTEST_GUILESS_MAIN(TestStart)
#include "tst_start.moc"
