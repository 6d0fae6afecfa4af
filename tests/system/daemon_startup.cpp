#include "ipcurls.h"
#include "client.h"
#include "daemonprocess.h"
#include "standins.h"

#include <QtCore/QDir>
#include <QtNetwork/QLocalServer>
#include <QtTest/QtTest>

#include <sys/stat.h>

namespace {

const QString kListenFailure = QStringLiteral(
    "\"Unable to start the server: QLocalServer::listen: Address in use. LocalServer\"");

ino_t inodeOf(const QString &path)
{
    struct stat status = {};
    return ::lstat(path.toLocal8Bit().constData(), &status) == 0 ? status.st_ino : 0;
}

} // namespace

/// What the daemon does from its start until it listens, and what it says meanwhile.
class DaemonStartup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void firstStartCreatesTheDataFolderAndChecksDns()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_VERIFY(QFile::exists(shared::getIpcServiceUrl()));
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
        QTRY_VERIFY(QFile::exists(shared::getIpcServiceUrl()));
        QTRY_COMPARE(daemon.log().value(1), QStringLiteral("Directory isn't created"));
        Client client;
        QVERIFY(client.attachToNewEndpoint());
    }

    void settingsThatACrashLeftChangedAreRestored()
    {
        standins::setDns(QStringLiteral("Wi-Fi"), {QStringLiteral("10.8.0.1")},
                         {QStringLiteral("tunnel.test")});
        standins::setDns(QStringLiteral("Thunderbolt Bridge"), {QStringLiteral("10.8.0.1")},
                         {QStringLiteral("tunnel.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1 192.0.2.2\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Wi-Fi"), "Empty\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Thunderbolt Bridge"), "Empty\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Thunderbolt Bridge"),
                              "a.test b.test\n");
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 (QStringList{QStringLiteral("192.0.2.1"), QStringLiteral("192.0.2.2")}));
        QCOMPARE(standins::searchDomains(QStringLiteral("Wi-Fi")), QStringList());
        QCOMPARE(standins::dnsServers(QStringLiteral("Thunderbolt Bridge")), QStringList());
        QCOMPARE(standins::searchDomains(QStringLiteral("Thunderbolt Bridge")),
                 (QStringList{QStringLiteral("a.test"), QStringLiteral("b.test")}));
        QCOMPARE(standins::backupFiles(), QStringList());
    }

    void dnsIsRestoredBeforeTheDaemonListens()
    {
        // The restore script looks whether there is a socket already, twice in a second.
        QFile::remove(QStringLiteral("/sbin/networksetup"));
        QFile slow(QStringLiteral("/sbin/networksetup"));
        QVERIFY(slow.open(QIODevice::WriteOnly));
        slow.write("#!/bin/bash\nfor turn in 1 2; do\n  sleep 0.5\n"
                   "  [[ -e '"
                   + shared::getIpcServiceUrl().toUtf8()
                   + "' ]] && echo present || "
                     "echo absent\ndone >>/tmp/socket\n");
        slow.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
        slow.close();
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_VERIFY(QFile::exists(shared::getIpcServiceUrl()));
        QTRY_COMPARE(daemon.count(QStringLiteral("check DNS result  true")), 1);
        QFile seen(QStringLiteral("/tmp/socket"));
        QVERIFY(seen.open(QIODevice::ReadOnly));
        const QByteArray text = seen.readAll();
        QVERIFY(text.startsWith("absent\nabsent\n"));
        QVERIFY2(!text.contains("present"), text.constData());
    }

    void secondDaemonLogsAndIdlesWhileTheFirstServesOn()
    {
        DaemonProcess first;
        QVERIFY(first.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        const ino_t inode = inodeOf(shared::getIpcServiceUrl());
        QVERIFY(inode != 0);

        DaemonProcess second;
        QVERIFY(second.startOnly());
        QTRY_COMPARE(second.count(kListenFailure), 1);
        QTest::qWait(300);
        QVERIFY(second.isRunning());
        QCOMPARE(inodeOf(shared::getIpcServiceUrl()), inode);

        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), 1);
        Client late;
        QVERIFY(late.attachToNewEndpoint());
        QCOMPARE(late.endpoint(), 2);

        second.kill();
        QCOMPARE(inodeOf(shared::getIpcServiceUrl()), inode);
    }

    void staleSocketFileMakesTheListenFail()
    {
        {
            DaemonProcess killed;
            QVERIFY(killed.start());
        }
        const ino_t inode = inodeOf(shared::getIpcServiceUrl());
        QVERIFY(inode != 0);
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(daemon.count(kListenFailure), 1);
        QVERIFY(daemon.isRunning());
        QCOMPARE(inodeOf(shared::getIpcServiceUrl()), inode);
    }

    void otherThingsAtTheNameMakeTheListenFail_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("folder") << QStringLiteral("mkdir \"$0\"");
        QTest::newRow("plain file") << QStringLiteral("echo kept >\"$0\"");
        QTest::newRow("dangling link") << QStringLiteral("ln -s /nowhere/at-all \"$0\"");
    }

    void otherThingsAtTheNameMakeTheListenFail()
    {
        QFETCH(QString, command);
        QFile::remove(shared::getIpcServiceUrl());
        QDir().rmdir(shared::getIpcServiceUrl());
        QCOMPARE(QProcess::execute(QStringLiteral("/bin/bash"),
                                   {QStringLiteral("-c"), command, shared::getIpcServiceUrl()}),
                 0);
        const ino_t inode = inodeOf(shared::getIpcServiceUrl());
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE(daemon.count(kListenFailure), 1);
        QVERIFY(daemon.isRunning());
        QCOMPARE(inodeOf(shared::getIpcServiceUrl()), inode);
    }

    void argumentsAreNotRead()
    {
        DaemonProcess daemon;
        daemon.setWrapper({QStringLiteral("/bin/bash"), QStringLiteral("-c"),
                           QStringLiteral("exec \"$0\" --help --version nonsense")});
        QVERIFY(daemon.start());
    }
};

QTEST_GUILESS_MAIN(DaemonStartup)
#include "daemon_startup.moc"
