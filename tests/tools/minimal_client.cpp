#include "tests/support/daemonprocess.h"
#include "tests/support/standins.h"
#include "tests/tools/pemtexts.h"

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
