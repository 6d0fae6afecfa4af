#include "client.h"
#include "daemonprocess.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

using standins::serverFor;

namespace {

const QString kSuccess = "success";

/// A client, and when its last command was sent.
struct TimedClient
{
    Client client;
    QElapsedTimer timer;
};

/// An answer never comes before its time, and on a busy machine a while later.
void compareAnswer(const TimedClient &timed, int n, qint64 notBeforeMs, const QString &outcome)
{
    QTRY_COMPARE_WITH_TIMEOUT(timed.client.outcome(n), outcome, 30'000);
    const qint64 elapsed = timed.timer.elapsed();
    QVERIFY2(elapsed >= notBeforeMs && elapsed < notBeforeMs + 4'000,
             qPrintable(QString::number(elapsed)));
}

} // namespace

/// The limits of attempts, disconnects and the start as the shipped daemon has them. The behaviour
/// in detail is shown by unit tests, with shorter ones.
class TestLimits : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    /// What waits runs inside each other's event loops. So what takes longest begins first: nothing
    /// is answered late because of what it has to wait for.
    void silenceTakesTenSecondsAStubbornTunnelFifteenAndDoubtSixteen()
    {
        lab::resetPrivateRoot();
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        TimedClient undecided;
        TimedClient stubborn;
        TimedClient silent;
        for (TimedClient *timed : {&undecided, &stubborn, &silent})
            QVERIFY(timed->client.attachToNewEndpoint());
        stubborn.client.connectUdp(serverFor("ignores-term"));
        QTRY_COMPARE(stubborn.client.outcome(), kSuccess);

        undecided.timer.start();
        undecided.client.connectUdp(serverFor("chatty"));
        QTRY_COMPARE(standins::runningOpenvpns(), 2);
        stubborn.timer.start();
        stubborn.client.disconnectTunnel();
        QTRY_COMPARE(daemon.count("result params  \"disconnect\""), 1);
        silent.timer.start();
        silent.client.connectUdp(serverFor("silent"));
        QTRY_COMPARE(standins::runningOpenvpns(), 3);
        const double usedBefore = measures::processorTime(daemon.pid());

        compareAnswer(silent, 0, 10'000, "warning.open_vpn_server_does_not_respond");
        // Three waits, one inside the other, cost next to no processor time.
        const double usedMs = measures::processorTime(daemon.pid()) - usedBefore;
        QVERIFY2(usedBefore >= 0 && usedMs <= 500, qPrintable(QString::number(usedMs)));

        const qint64 stubbornOpenvpn = standins::openvpnStarts().first().pid;
        QVERIFY(standins::isAlive(stubbornOpenvpn));
        compareAnswer(stubborn, 1, 15'000, kSuccess);
        QVERIFY(!standins::isAlive(stubbornOpenvpn));
        compareAnswer(undecided, 0, 16'000, "warning.open_vpn_connection_time_out");
        QVERIFY(daemon.isRunning());
    }

    /// Last, since networksetup stays as it is then.
    void networksetupThatHangsHoldsUpTheStartForTenSeconds()
    {
        lab::resetPrivateRoot();
        standins::wrapNetworksetup("exec sleep 120\n");
        DaemonProcess daemon;
        QElapsedTimer timer;
        timer.start();
        QVERIFY(daemon.startOnly());
        QTRY_COMPARE_WITH_TIMEOUT(daemon.count("check DNS result  true"), 1, 30'000);
        QVERIFY2(timer.elapsed() >= 10'000 && timer.elapsed() < 14'000,
                 qPrintable(QString::number(timer.elapsed())));
        QTRY_VERIFY(Client().connectToMainSocket());
    }
};

QTEST_GUILESS_MAIN(TestLimits)
#include "tst_limits.moc"
