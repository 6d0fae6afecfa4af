#include "daemonprocess.h"
#include "standins.h"
#include "pemtexts.h"

#include <QtTest/QtTest>

/// The example that a newcomer copies.
class MinimalClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void holdsTheWholeConversation()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QProcess client;
        client.start(QStringLiteral(TALVEX_MINIMAL_CLIENT), arguments(QStringLiteral("connects")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        QTRY_COMPARE(client.state(), QProcess::NotRunning);
        QCOMPARE(client.exitCode(), 0);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(client.readAllStandardError(),
                 QByteArray("{\"arg\":\"connect\",\"cmd\":\"connect\",\"status\":true,\"type\":"
                            "\"openvpn\"} true \n"
                            "{\"arg\":\"disconnect\",\"cmd\":\"disconnect\",\"status\":true,"
                            "\"type\":\"openvpn\"}"
                            " true \n"));
    }

    void sendsTheServerItWasGiven()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QProcess client;
        client.start(QStringLiteral(TALVEX_MINIMAL_CLIENT), arguments(QStringLiteral("connects")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        const QByteArray text = standins::configurationOf(standins::openvpnStarts()[0]);
        QVERIFY(text.contains("\nproto udp\nremote connects 1194\n"));
        QVERIFY(text.contains("<ca>\n" + pemtexts::certificate().toLatin1()));
        QTRY_COMPARE(client.state(), QProcess::NotRunning);
    }

    void callsTheHeartbeatBeforeItConnects()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QProcess client;
        client.start(QStringLiteral(TALVEX_MINIMAL_CLIENT), arguments(QStringLiteral("connects")));
        const QString heartbeat = QStringLiteral("Replica state is  true");
        const QString command = QStringLiteral("Command status  \"connect\"");
        QTRY_COMPARE(daemon.count(command), 1);
        QCOMPARE(daemon.count(heartbeat), 1);
        QVERIFY(daemon.log().indexOf(heartbeat) < daemon.log().indexOf(command));
        QTRY_COMPARE(client.state(), QProcess::NotRunning);
    }

    void failsWhenTheTunnelDoesNotComeUp()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QProcess client;
        client.start(QStringLiteral(TALVEX_MINIMAL_CLIENT), arguments(QStringLiteral("error")));
        QTRY_COMPARE_WITH_TIMEOUT(client.state(), QProcess::NotRunning, 10'000);
        QCOMPARE(client.exitStatus(), QProcess::NormalExit);
        QCOMPARE(client.exitCode(), 1);
        QVERIFY(client.readAllStandardError().contains(
            " false warning.can_not_open_vpn_check_is_admin_granted\n"));
        QCOMPARE(standins::openvpnStarts().size(), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void endsWhenTheDaemonDies()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QProcess client;
        client.start(QStringLiteral(TALVEX_MINIMAL_CLIENT), arguments(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        daemon.kill();
        QTRY_COMPARE(client.state(), QProcess::NotRunning);
        QCOMPARE(client.exitStatus(), QProcess::NormalExit);
        QCOMPARE(client.exitCode(), 1);
        QCOMPARE(client.readAllStandardError(), QByteArray("the daemon closed the connection\n"));
    }

    void namesAFileThatItCannotRead()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QStringList words = arguments(QStringLiteral("connects"));
        words.last() = QStringLiteral("/var/root/none.key");
        QProcess client;
        client.start(QStringLiteral(TALVEX_MINIMAL_CLIENT), words);
        QTRY_COMPARE(client.state(), QProcess::NotRunning);
        QCOMPARE(client.exitCode(), 1);
        QCOMPARE(client.readAllStandardError(), QByteArray("cannot read /var/root/none.key\n"));
        QCOMPARE(daemon.log(), QStringList());
    }

    void staysShort()
    {
        QFile source(QStringLiteral(TALVEX_MINIMAL_CLIENT_SOURCE));
        QVERIFY(source.open(QIODevice::ReadOnly));
        const int lines = source.readAll().count('\n');
        QVERIFY2(lines > 0 && lines < 80, qPrintable(QString::number(lines)));
    }

    void saysSoWithoutDaemon()
    {
        QProcess client;
        client.start(QStringLiteral(TALVEX_MINIMAL_CLIENT), arguments(QStringLiteral("connects")));
        QTRY_COMPARE(client.state(), QProcess::NotRunning);
        QCOMPARE(client.exitCode(), 1);
        QCOMPARE(client.readAllStandardError().trimmed().split('\n').last(),
                 QByteArray("the daemon is not running"));
    }

private:
    static QStringList arguments(const QString &host)
    {
        QFile file(QStringLiteral("/var/root/ca.crt"));
        if (!file.open(QIODevice::WriteOnly) || file.write(pemtexts::certificate().toLatin1()) < 0)
            qFatal("cannot write %s", qPrintable(file.fileName()));
        return {host, QStringLiteral("1194"), file.fileName(), file.fileName(), file.fileName()};
    }
};

QTEST_GUILESS_MAIN(MinimalClient)
#include "minimal_client.moc"
