#include "daemonprocess.h"
#include "pemtexts.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

/// The client that a newcomer copies.
class TestExamples : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<DaemonProcess> m_daemon;
    QScopedPointer<QProcess> m_client;
    QStringList m_files; ///< for the authority, the certificate and the key

    void start(const QString &host)
    {
        m_client.reset(new QProcess);
        m_client->start(QStringLiteral(TALVEX_MINIMAL_CLIENT),
                        QStringList{host, QStringLiteral("1194")} + m_files);
    }

    void fails(const QByteArray &message)
    {
        QTRY_COMPARE(m_client->state(), QProcess::NotRunning);
        QCOMPARE(m_client->exitStatus(), QProcess::NormalExit);
        QCOMPARE(m_client->exitCode(), 1);
        const QByteArray error = m_client->readAllStandardError();
        QVERIFY2(error.contains(message + '\n'), error.constData());
    }

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        QFile file(QStringLiteral("/var/root/ca.crt"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(file.write(pemtexts::certificate().toLatin1()) > 0);
        m_files = QStringList{file.fileName(), file.fileName(), file.fileName()};
        m_daemon.reset(new DaemonProcess);
        QVERIFY(m_daemon->start());
    }

    void cleanup()
    {
        m_client.reset();
        m_daemon.reset();
    }

    void holdsTheWholeConversation()
    {
        start(QStringLiteral("connects"));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        const QByteArray text = standins::configurationOf(standins::openvpnStarts()[0]);
        QVERIFY(text.contains("\nproto udp\nremote connects 1194\n"));
        QVERIFY(text.contains("<ca>\n" + pemtexts::certificate().toLatin1()));
        QTRY_COMPARE(m_client->state(), QProcess::NotRunning);
        QCOMPARE(m_client->exitCode(), 0);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(m_client->readAllStandardError(),
                 QByteArray("{\"arg\":\"connect\",\"cmd\":\"connect\",\"status\":true,\"type\":"
                            "\"openvpn\"} true \n"
                            "{\"arg\":\"disconnect\",\"cmd\":\"disconnect\",\"status\":true,"
                            "\"type\":\"openvpn\"} true \n"));
        const int heartbeat = m_daemon->log().indexOf(QStringLiteral("Replica state is  true"));
        QVERIFY(heartbeat >= 0);
        QVERIFY(heartbeat < m_daemon->log().indexOf(QStringLiteral("Connect cmd \"ovpnUdp\"")));
    }

    void failsWhenTheTunnelDoesNotComeUp()
    {
        start(QStringLiteral("error"));
        fails(" false warning.can_not_open_vpn_check_is_admin_granted");
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void endsWhenTheDaemonDies()
    {
        start(QStringLiteral("silent"));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        m_daemon->kill();
        fails("the daemon closed the connection");
    }

    void namesAFileThatItCannotRead()
    {
        m_files.last() = QStringLiteral("/var/root/none.key");
        start(QStringLiteral("connects"));
        fails("cannot read /var/root/none.key");
        QCOMPARE(m_daemon->log(), QStringList());
    }

    void saysSoWithoutDaemon()
    {
        m_daemon->kill();
        start(QStringLiteral("connects"));
        fails("the daemon is not running");
    }

    void staysShort()
    {
        QFile source(QStringLiteral(TALVEX_MINIMAL_CLIENT_SOURCE));
        QVERIFY(source.open(QIODevice::ReadOnly));
        const int lines = source.readAll().count('\n');
        QVERIFY2(lines > 0 && lines < 80, qPrintable(QString::number(lines)));
    }
};

QTEST_GUILESS_MAIN(TestExamples)
#include "tst_examples.moc"
