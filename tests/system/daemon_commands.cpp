#include "ipcurls.h"
#include "client.h"
#include "daemonprocess.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

using standins::serverFor;

namespace {

const QString kConnectAnswer = QStringLiteral(
    "{\"arg\":\"connect\",\"cmd\":\"connect\",\"status\":true,\"type\":\"openvpn\"}");
const QString kDisconnectAnswer = QStringLiteral(
    "{\"arg\":\"disconnect\",\"cmd\":\"disconnect\",\"status\":true,\"type\":\"openvpn\"}");
const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");

const QString kSuccess = QStringLiteral("success");

} // namespace

/// Whole conversations between clients and the daemon, with the stand-in for openvpn.
class DaemonCommands : public QObject
{
    Q_OBJECT

private:
    DaemonProcess m_daemon;

private Q_SLOTS:
    void init() { QVERIFY(m_daemon.start()); }

    void cleanup() { QVERIFY(m_daemon.isRunning()); }

    void tunnelComesUpAndGoesDown()
    {
        standins::setDns(QStringLiteral("Wi-Fi"), {QStringLiteral("192.0.2.53")},
                         {QStringLiteral("home.test")});
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(client.answers().size(), 1);
        QCOMPARE(client.answers().first().message, kConnectAnswer);
        QCOMPARE(client.answers().first().result.code, 1);
        QCOMPARE(client.outcome(), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 QStringList{QStringLiteral("10.8.0.1")});

        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), 2);
        QCOMPARE(client.answers().at(1).message, kDisconnectAnswer);
        QCOMPARE(client.outcome(1), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 QStringList{QStringLiteral("192.0.2.53")});
        QCOMPARE(standins::searchDomains(QStringLiteral("Wi-Fi")),
                 QStringList{QStringLiteral("home.test")});
        QCOMPARE(standins::backupFiles(), QStringList());
    }

    void conversationIsLogged()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.heartbeat(true);
        client.heartbeat(false);
        client.connectTcp(serverFor(QStringLiteral("prints-at-once-success")));
        QTRY_COMPARE(client.answers().size(), 1);
        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), 2);
        for (const char *line :
             {"LocalServer new connection", "Source Node Started", "IpcServer new connection",
              "Replica state is  true", "Replica state is  false", "Command status  \"connect\"",
              "Connect cmd \"ovpnTcp\"", "Command status  \"openvpn\"",
              "result params  \"disconnect\"", "Resources folder doesn't exist",
              "openvpn state:  QProcess::Running", "readAll:  \"\"", "result output  true"}) {
            QTRY_VERIFY2(m_daemon.count(QString::fromUtf8(line)) >= 1, line);
        }
        QTRY_COMPARE(m_daemon.linesWith(QStringLiteral("outputString:  \"")).size(), 1);
        for (const QString &answer : {kConnectAnswer, kDisconnectAnswer}) {
            QString quoted = answer;
            quoted.replace(QLatin1Char('"'), QStringLiteral("\\\""));
            QCOMPARE(m_daemon.count(QStringLiteral("Send command service \"%1\"").arg(quoted)), 1);
        }
    }

    void attemptsAndTheirEndAreLogged()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        VpnServerInformation server = serverFor(QStringLiteral("exits-at-once"));
        server.ca = QStringLiteral("verb 0, compress lzo\n-----BEGIN CERTIFICATE-----\nQQ==\n"
                                   "-----END CERTIFICATE-----\n");
        client.connectUdp(server);
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 1, 20'000);
        QCOMPARE(client.outcome(), QStringLiteral("warning.open_vpn_connection_time_out"));
        const int attempts = standins::openvpnStarts().size();
        QVERIFY(attempts > 10);
        QTRY_COMPARE(m_daemon.count(QStringLiteral("Connecting timeout, stop processing")), 1);
        QCOMPARE(m_daemon.count(QStringLiteral("----------------- New Connection "
                                               "-----------------\r")),
                 attempts);
        QCOMPARE(m_daemon.count(QStringLiteral("replace verb 1")), attempts);
        QCOMPARE(m_daemon.count(QStringLiteral("replace comp-lzo")), attempts);
        QCOMPARE(m_daemon.count(QStringLiteral("openvpn state:  QProcess::NotRunning")), attempts);
        const QString program = DaemonProcess::programFolder() + QStringLiteral("/openvpn");
        const QString command = QStringLiteral("\"%1\" \"\\\"%1\\\" --config \\\"").arg(program);
        QCOMPARE(m_daemon.linesWith(command).size(), attempts);
        QCOMPARE(m_daemon.linesWith(QStringLiteral("QString::arg: Argument missing: ")).size(), 1);
    }

    void whatOpenvpnPrintsDuringADisconnectIsLogged()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("slow-to-stop")));
        QTRY_COMPARE(client.answers().size(), 1);
        client.disconnectTunnel();
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 2, 8'000);
        for (int second = 0; second < 3; ++second)
            QTRY_COMPARE(
                m_daemon.count(QStringLiteral("\"Still closing, second %1\\n\"").arg(second)), 1);
    }

    void textsThatAreNoCommandGetNoAnswer()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        const QStringList texts{QStringLiteral("{\"type\":\"openvpn\",\"cmd\":\"connect\"}"),
                                QStringLiteral("{\"type\":\"connect\",\"cmd\":\"disconnect\"}"),
                                QStringLiteral("{\"type\":\"connect\",\"cmd\":\"OVPNUDP\"}"),
                                QStringLiteral("{\"type\":\"OpenVPN\",\"cmd\":\"disconnect\"}"),
                                QStringLiteral("{\"type\":\"connect\",\"cmd\":7}"),
                                QStringLiteral("[{\"type\":\"openvpn\",\"cmd\":\"disconnect\"}]"),
                                QStringLiteral("no JSON"),
                                QString()};
        for (const QString &text : texts)
            client.send(text, serverFor(QStringLiteral("connects")));
        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), 1);
        QCOMPARE(client.answers().first().message, kDisconnectAnswer);
        QTRY_COMPARE(m_daemon.linesWith(QStringLiteral("Command status  ")).size(),
                     texts.size() + 1);
        QCOMPARE(standins::openvpnStarts().size(), 0);
    }

    void heartbeatDuringAConnectIsServedDuringIt()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        client.heartbeat();
        QTRY_COMPARE_WITH_TIMEOUT(m_daemon.count(QStringLiteral("Replica state is  true")), 1,
                                  1'000);
        QCOMPARE(client.answers().size(), 0);
    }

    void otherClientsAreServedDuringAConnect()
    {
        Client busy;
        QVERIFY(busy.attachToNewEndpoint());
        busy.connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        QElapsedTimer timer;
        timer.start();
        Client other;
        QVERIFY(other.attachToNewEndpoint());
        other.connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
        QTRY_COMPARE(other.outcome(), kSuccess);
        QVERIFY(timer.elapsed() < 2'000);
        QCOMPARE(busy.answers().size(), 0);
    }

    void disconnectDuringAConnectEndsItWithinASecond()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        QTest::qWait(1'000);
        client.disconnectTunnel();
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 0, 1'000);
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 2, 1'000);
        QCOMPARE(client.answers().at(0).message, kConnectAnswer);
        QCOMPARE(client.outcome(0), kAttemptFailed);
        QCOMPARE(client.answers().at(1).message, kDisconnectAnswer);
        QCOMPARE(client.outcome(1), kSuccess);
    }

    void connectDuringAConnectWinsAndStaysUp()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        client.connectTcp(serverFor(QStringLiteral("prints-at-once-success")));
        QTRY_COMPARE(client.answers().size(), 2);
        QCOMPARE(client.outcome(0), kAttemptFailed);
        QCOMPARE(client.outcome(1), kSuccess);
        const auto starts = standins::openvpnStarts();
        QCOMPARE(starts.size(), 2);
        QTest::qWait(1'500);
        QVERIFY(!standins::isAlive(starts.at(0).pid));
        QVERIFY(standins::isAlive(starts.at(1).pid));
        QCOMPARE(client.answers().size(), 2);
    }

    void connectThatIsOvertakenBeforeItBeganStartsNothing()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        // All three reach the daemon in one piece.
        client.connectUdp(serverFor(QStringLiteral("silent")));
        client.connectUdp(serverFor(QStringLiteral("silent")));
        client.connectTcp(serverFor(QStringLiteral("prints-at-once-success")));
        QTRY_COMPARE(client.answers().size(), 3);
        QCOMPARE(client.outcome(0), kAttemptFailed);
        QCOMPARE(client.outcome(1), kAttemptFailed);
        QCOMPARE(client.outcome(2), kSuccess);
        QVERIFY(standins::openvpnStarts().size() <= 2);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void commandsDuringADisconnectRunAfterIt()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("slow-to-stop")));
        QTRY_COMPARE(client.answers().size(), 1);
        client.disconnectTunnel();
        QTest::qWait(300);
        client.connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 3, 8'000);
        QCOMPARE(client.answers().at(1).message, kDisconnectAnswer);
        QCOMPARE(client.outcome(2), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void clientThatStopsItsHeartbeatLosesTheTunnelAfterThirtySeconds()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(client.answers().size(), 1);
        client.heartbeat();
        QElapsedTimer timer;
        timer.start();
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 0, 35'000);
        QVERIFY2(timer.elapsed() >= 29'900, qPrintable(QString::number(timer.elapsed())));
        QTRY_COMPARE(m_daemon.count(QStringLiteral("Client was disconnected")), 1);
        QTRY_COMPARE(standins::backupFiles(), QStringList());
        QTest::qWait(500);
        QCOMPARE(client.answers().size(), 1);
    }

    void clientThatVanishesLosesTheTunnelAfterThirtySeconds()
    {
        QElapsedTimer timer;
        {
            Client client;
            QVERIFY(client.attachToNewEndpoint());
            client.connectUdp(serverFor(QStringLiteral("connects")));
            QTRY_COMPARE(client.answers().size(), 1);
            client.heartbeat();
            QTRY_COMPARE(m_daemon.count(QStringLiteral("Replica state is  true")), 1);
            timer.start();
        }
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 0, 35'000);
        QVERIFY2(timer.elapsed() >= 29'500, qPrintable(QString::number(timer.elapsed())));
        QTRY_COMPARE(m_daemon.count(QStringLiteral("Client was disconnected")), 1);
    }

    void heartbeatTimeOutDuringAConnectEndsTheAttempt()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.heartbeat();
        QTest::qWait(24'000);
        client.connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 1, 8'000);
        QCOMPARE(client.outcome(), kAttemptFailed);
        QCOMPARE(m_daemon.count(QStringLiteral("Client was disconnected")), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void clientWithoutHeartbeatKeepsItsTunnelWhenItLeaves()
    {
        {
            Client client;
            QVERIFY(client.attachToNewEndpoint());
            client.connectUdp(serverFor(QStringLiteral("connects")));
            QTRY_COMPARE(client.answers().size(), 1);
        }
        QTest::qWait(33'000);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(m_daemon.count(QStringLiteral("Client was disconnected")), 0);
    }

    void missingOpenvpnIsAnsweredAtOnce()
    {
        QVERIFY(QFile::remove(DaemonProcess::programFolder() + QStringLiteral("/openvpn")));
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        QElapsedTimer timer;
        timer.start();
        client.connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(client.answers().size(), 1);
        QVERIFY(timer.elapsed() < 450);
        QCOMPARE(client.outcome(), QStringLiteral("warning.open_vpn_running_fails_check_apps"));
    }

    void missingOpenvpnThatShowsLateIsAnsweredThen()
    {
        m_daemon.kill();
        QVERIFY(QFile::remove(shared::getIpcServiceUrl()));
        m_daemon.setEnvironment(QStringLiteral("LD_PRELOAD"), QStringLiteral(TALVEX_SLOWEXEC));
        m_daemon.setEnvironment(QStringLiteral("ASAN_OPTIONS"),
                                QStringLiteral("verify_asan_link_order=0"));
        QVERIFY(m_daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        QElapsedTimer timer;
        timer.start();
        client.connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 1, 8'000);
        QVERIFY(timer.elapsed() >= 3'000);
        QCOMPARE(client.outcome(),
                 QStringLiteral("warning.open_vpn_does_not_exists_try_another_protocol"));
        QVERIFY(m_daemon.count(QStringLiteral("openvpn state:  QProcess::Starting")) > 0);
    }

    void waitingForASilentServerCostsNoProcessorTime()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        const auto ticks = [this] {
            QFile stat(QStringLiteral("/proc/%1/stat").arg(m_daemon.pid()));
            if (!stat.open(QIODevice::ReadOnly))
                return -1;
            const QByteArray text = stat.readAll();
            const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
            return fields.at(11).toInt() + fields.at(12).toInt();
        };
        const int before = ticks();
        QVERIFY(before >= 0);
        client.connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 1, 12'000);
        const int used = ticks() - before; // hundredths of a second
        QVERIFY2(used <= 10, qPrintable(QString::number(used)));
    }
};

QTEST_GUILESS_MAIN(DaemonCommands)
#include "daemon_commands.moc"
