#include "measures.h"
#include "client.h"
#include "daemonprocess.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <csignal>

using standins::serverFor;

namespace {

const QString kSuccess = QStringLiteral("success");
const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");
const QString kTimeOut = QStringLiteral("warning.open_vpn_connection_time_out");
const QString kNoResponse = QStringLiteral("warning.open_vpn_server_does_not_respond");
const QString kCannotCreateConfig = QStringLiteral("label.can_not_create_config_for_open_vpn");

const QString kWiFi = QStringLiteral("Wi-Fi");
const QStringList kUsersDns{QStringLiteral("192.0.2.53")};
const QStringList kTunnelsDns{QStringLiteral("10.8.0.1")};

} // namespace

/// What the daemon makes of an openvpn that misbehaves: the answer, and that it can go on.
class OpenvpnFailures : public QObject
{
    Q_OBJECT

private:
    DaemonProcess m_daemon;
    Client m_client;

    QString connectTo(const QString &scenario)
    {
        const int before = m_client.answers().size();
        m_client.connectUdp(serverFor(scenario));
        [&] { QTRY_COMPARE_WITH_TIMEOUT(m_client.answers().size(), before + 1, 25'000); }();
        return m_client.outcome(before);
    }

    QString disconnect()
    {
        const int before = m_client.answers().size();
        m_client.disconnectTunnel();
        [&] { QTRY_COMPARE_WITH_TIMEOUT(m_client.answers().size(), before + 1, 25'000); }();
        return m_client.outcome(before);
    }

    /// The daemon is as new: a tunnel comes up and goes down, and gives the settings back.
    void tunnelWorks()
    {
        QCOMPARE(connectTo(QStringLiteral("connects")), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(standins::dnsServers(kWiFi), kTunnelsDns);
        QCOMPARE(disconnect(), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
        QCOMPARE(standins::backupFiles(), QStringList());
    }

    void sendSignal(int signal)
    {
        ::kill(static_cast<pid_t>(standins::openvpnStarts().last().pid), signal);
    }

    void growsByLittle(qint64 before)
    {
        const qint64 growth = m_daemon.residentKiB() - before;
        qInfo("resident memory +%lld KiB, at most %lld KiB", growth,
              measures::statusOf(m_daemon.pid(), "VmHWM"));
        if (measures::kResidentMemoryCounts)
            QVERIFY(growth < 8 * 1024);
    }

    /// @return whether the stand-in has put out its flood.
    static bool hasPrintedAll()
    {
        QFile journal(QStringLiteral("/var/root/stand-ins/openvpn/journal"));
        return journal.open(QIODevice::ReadOnly) && journal.readAll().contains("has printed all");
    }

private Q_SLOTS:
    void init()
    {
        m_daemon.setEnvironment(QStringLiteral("TMPDIR"), QStringLiteral("/tmp/keys"));
        QVERIFY(QDir().mkpath(QStringLiteral("/tmp/keys")));
        standins::setDns(kWiFi, kUsersDns, {QStringLiteral("home.test")});
        QVERIFY(m_daemon.start());
        QVERIFY(m_client.attachToNewEndpoint());
    }

    void cleanup() { QVERIFY(m_daemon.isRunning()); }

    void killedWhileConnectedLeavesTheNextConnectToWork()
    {
        QCOMPARE(connectTo(QStringLiteral("connects")), kSuccess);
        sendSignal(SIGKILL);
        QTRY_COMPARE(standins::runningOpenvpns(), 0);
        tunnelWorks();
    }

    void killedWhileConnectedLeavesADisconnectToRestoreTheSettings()
    {
        QCOMPARE(connectTo(QStringLiteral("connects")), kSuccess);
        sendSignal(SIGKILL);
        QTRY_COMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers(kWiFi), kTunnelsDns);
        QCOMPARE(disconnect(), kSuccess);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
        tunnelWorks();
    }

    void killedDuringAnAttemptIsTriedAgain()
    {
        m_client.connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        sendSignal(SIGKILL);
        QTRY_COMPARE(standins::openvpnStarts().size(), 2);
        QTRY_COMPARE_WITH_TIMEOUT(m_client.answers().size(), 1, 20'000);
        QCOMPARE(m_client.outcome(), kNoResponse);
        tunnelWorks();
    }

    void stoppedWhileConnectedIsKilledByADisconnect()
    {
        QCOMPARE(connectTo(QStringLiteral("connects")), kSuccess);
        sendSignal(SIGSTOP);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(disconnect(), kSuccess);
        QVERIFY2(timer.elapsed() >= 15'000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
        tunnelWorks();
    }

    void stoppedDuringAnAttemptIsKilledByTheNextCommand()
    {
        QCOMPARE(connectTo(QStringLiteral("stops-itself-silently")), kNoResponse);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(disconnect(), kSuccess);
        QVERIFY2(timer.elapsed() >= 15'000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(standins::runningOpenvpns(), 0);
        tunnelWorks();
    }

    void crashesAreAnsweredAsATimeOut()
    {
        QCOMPARE(connectTo(QStringLiteral("crashes")), kTimeOut);
        tunnelWorks();
    }

    void ignoringSigtermIsEndedBySigkill()
    {
        QCOMPARE(connectTo(QStringLiteral("ignores-term")), kSuccess);
        QCOMPARE(disconnect(), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 0);
        tunnelWorks();
    }

    void closedOutputIsAnsweredAsNoResponse()
    {
        QCOMPARE(connectTo(QStringLiteral("only-empty")), kNoResponse);
        tunnelWorks();
    }

    void childThatHoldsThePipeHoldsUpNothing()
    {
        QCOMPARE(connectTo(QStringLiteral("child-holds-pipe")), kSuccess);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(disconnect(), kSuccess);
        QVERIFY2(timer.elapsed() < 3'000, qPrintable(QString::number(timer.elapsed())));
        tunnelWorks();
    }

    void childThatHoldsThePipeOfAnEndedOpenvpnHoldsUpNothing()
    {
        QCOMPARE(connectTo(QStringLiteral("exits-but-child-holds-pipe")), kTimeOut);
        QVERIFY(standins::openvpnStarts().size() > 10);
        tunnelWorks();
    }

    void errorIsAnsweredAsAFailedAttempt()
    {
        QCOMPARE(connectTo(QStringLiteral("error")), kAttemptFailed);
        tunnelWorks();
    }

    void floodBeforeTheVerdictLeavesNoMemoryBehind()
    {
        const qint64 before = m_daemon.residentKiB();
        QCOMPARE(connectTo(QStringLiteral("flood")), kSuccess);
        QCOMPARE(disconnect(), kSuccess);
        growsByLittle(before);
        QVERIFY(!QTest::currentTestFailed());
        tunnelWorks();
    }

    void floodFromATunnelIsNotKept()
    {
        const qint64 before = m_daemon.residentKiB();
        QCOMPARE(connectTo(QStringLiteral("flood-when-connected")), kSuccess);
        QTRY_VERIFY_WITH_TIMEOUT(hasPrintedAll(), 20'000);
        growsByLittle(before);
        QVERIFY(!QTest::currentTestFailed());
        QCOMPARE(disconnect(), kSuccess);
        tunnelWorks();
    }

    void floodAfterAFailedAttemptIsNotKept()
    {
        const qint64 before = m_daemon.residentKiB();
        QCOMPARE(connectTo(QStringLiteral("flood-after-error")), kAttemptFailed);
        QTRY_VERIFY_WITH_TIMEOUT(hasPrintedAll(), 20'000);
        growsByLittle(before);
        QVERIFY(!QTest::currentTestFailed());
        tunnelWorks();
    }

    void fullDiskIsReportedAndPasses()
    {
        QCOMPARE(QProcess::execute(QStringLiteral("mount"),
                                   {QStringLiteral("-t"), QStringLiteral("tmpfs"),
                                    QStringLiteral("-o"), QStringLiteral("size=8k"),
                                    QStringLiteral("tmpfs"), QStringLiteral("/tmp/keys")}),
                 0);
        QFile filler(QStringLiteral("/tmp/keys/filler"));
        QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        while (filler.write(QByteArray(4096, 'x')) == 4096) {
        }
        QCOMPARE(connectTo(QStringLiteral("connects")), kCannotCreateConfig);
        QCOMPARE(standins::openvpnStarts().size(), 0);
        QVERIFY(filler.remove());
        tunnelWorks();
    }
};

QTEST_GUILESS_MAIN(OpenvpnFailures)
#include "openvpn_failures.moc"
