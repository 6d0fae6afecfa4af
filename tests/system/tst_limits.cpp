#include "client.h"
#include "daemonprocess.h"
#include "privateroot.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

using standins::serverFor;

namespace {

const QString kTimeOut = QStringLiteral("warning.open_vpn_connection_time_out");
const QString kSuccess = QStringLiteral("success");

/// A client, and when its last command was sent.
struct TimedClient
{
    Client client;
    QElapsedTimer timer;
};

/// Hundredths of a second of processor time that a process has used.
int processorTimeOf(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.at(11).toInt() + fields.at(12).toInt();
}

/// An answer never comes before its time, and on a busy machine a while later.
void compareAnswerTime(const TimedClient &timed, int answers, qint64 notBeforeMs)
{
    QTRY_COMPARE_WITH_TIMEOUT(timed.client.answers().size(), answers, 30'000);
    const qint64 elapsed = timed.timer.elapsed();
    QVERIFY2(elapsed >= notBeforeMs && elapsed < notBeforeMs + 4'000,
             qPrintable(QString::number(elapsed)));
}

} // namespace

/// The limits of attempts and disconnects as the shipped daemon has them. The behaviour in detail
/// is shown by the unit tests of OvpnConnection, with shorter ones.
class TestLimits : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<DaemonProcess> m_daemon;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        m_daemon.reset(new DaemonProcess);
        QVERIFY(m_daemon->start());
    }

    void cleanup()
    {
        QVERIFY(m_daemon->isRunning());
        m_daemon.reset();
    }

    /// What waits runs inside each other's event loops. So what takes longest begins first: nothing
    /// is answered late because of what it has to wait for.
    void silenceTakesTenSecondsAStubbornTunnelFifteenAndDoubtSixteen()
    {
        TimedClient undecided;
        TimedClient stubborn;
        TimedClient silent;
        for (TimedClient *timed : {&undecided, &stubborn, &silent})
            QVERIFY(timed->client.attachToNewEndpoint());
        stubborn.client.connectUdp(serverFor(QStringLiteral("ignores-term")));
        QTRY_COMPARE(stubborn.client.outcome(), kSuccess);

        undecided.timer.start();
        undecided.client.connectUdp(serverFor(QStringLiteral("chatty")));
        QTRY_COMPARE(standins::runningOpenvpns(), 2);
        stubborn.timer.start();
        stubborn.client.disconnectTunnel();
        QTRY_COMPARE(m_daemon->count(QStringLiteral("result params  \"disconnect\"")), 1);
        silent.timer.start();
        silent.client.connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 3);
        const int usedBefore = processorTimeOf(m_daemon->pid());

        compareAnswerTime(silent, 1, 10'000);
        QCOMPARE(silent.client.outcome(),
                 QStringLiteral("warning.open_vpn_server_does_not_respond"));
        // Three waits, one inside the other, cost next to no processor time, here in hundredths
        // of a second.
        const int used = processorTimeOf(m_daemon->pid()) - usedBefore;
        QVERIFY2(usedBefore >= 0 && used <= 50, qPrintable(QString::number(used)));

        const qint64 stubbornOpenvpn = standins::openvpnStarts().first().pid;
        QVERIFY(standins::isAlive(stubbornOpenvpn));
        compareAnswerTime(stubborn, 2, 15'000);
        QCOMPARE(stubborn.client.outcome(1), kSuccess);
        QVERIFY(!standins::isAlive(stubbornOpenvpn));

        compareAnswerTime(undecided, 1, 16'000);
        QCOMPARE(undecided.client.outcome(), kTimeOut);
    }

    void attemptsThatEndByThemselvesGoOnForSixteenSeconds()
    {
        TimedClient timed;
        QVERIFY(timed.client.attachToNewEndpoint());
        VpnServerInformation server = serverFor(QStringLiteral("exits-at-once"));
        server.ca = QStringLiteral("verb 0, compress lzo\n-----BEGIN CERTIFICATE-----\nQQ==\n"
                                   "-----END CERTIFICATE-----\n");
        timed.timer.start();
        timed.client.connectUdp(server);
        compareAnswerTime(timed, 1, 16'000);
        QCOMPARE(timed.client.outcome(), kTimeOut);

        const int attempts = standins::openvpnStarts().size();
        QVERIFY2(attempts > 10, qPrintable(QString::number(attempts)));
        for (const char *line :
             {"----------------- New Connection -----------------\r", "replace verb 1",
              "replace comp-lzo", "openvpn state:  QProcess::NotRunning"}) {
            QTRY_COMPARE(m_daemon->count(QString::fromUtf8(line)), attempts);
        }
        QCOMPARE(m_daemon->count(QStringLiteral("Connecting timeout, stop processing")), 1);
        QCOMPARE(m_daemon->linesWith(QStringLiteral("QString::arg: Argument missing: ")).size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestLimits)
#include "tst_limits.moc"
