#include "launchd.h"
#include "client.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <csignal>

using standins::serverFor;

namespace {

const QStringList kTunnelsDns{QStringLiteral("10.8.0.1")};

struct Settings
{
    QString service;
    QStringList servers;
    QStringList domains;
};

const QVector<Settings> &usersSettings()
{
    static const QVector<Settings> settings{
        {QStringLiteral("Wi-Fi"),
         {QStringLiteral("192.0.2.53"), QStringLiteral("2001:db8::53")},
         {QStringLiteral("home.test"), QStringLiteral("lan.test")}},
        {QStringLiteral("Thunderbolt Bridge"), {}, {}},
        {QStringLiteral("iPhone USB"), {QStringLiteral("198.51.100.1")}, {}},
        {QStringLiteral("Old Modem"), {}, {QStringLiteral("modem.test")}}};
    return settings;
}

} // namespace

/// The daemon killed at many points of a tunnel's life, and what its next start makes of it. The
/// scripts are the real ones, run by bash.
class CrashDns : public QObject
{
    Q_OBJECT

private:
    enum class Half { First, Second };
    enum class Phase { Connect, Connected, Disconnect, Restore, Startup };

    static constexpr int kPoints = 25;

    LaunchdJob m_job;

    static QStringList backups()
    {
        return standins::backupFiles().filter(QRegularExpression(QStringLiteral("^Talvex")));
    }

    static void compareSettings()
    {
        for (const Settings &settings : usersSettings()) {
            QCOMPARE(standins::dnsServers(settings.service), settings.servers);
            QCOMPARE(standins::searchDomains(settings.service), settings.domains);
        }
        QCOMPARE(backups(), QStringList());
    }

    void bringTunnelUp(Client &client)
    {
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(client.outcome(), QStringLiteral("success"));
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")), kTunnelsDns);
    }

    /// Brings the daemon to where @p phase begins, and lets the phase begin.
    void enter(Phase phase, Client &client)
    {
        if (phase == Phase::Connect) {
            QVERIFY(client.attachToNewEndpoint());
            client.connectUdp(serverFor(QStringLiteral("connects")));
        } else {
            bringTunnelUp(client);
            QVERIFY(!QTest::currentTestFailed());
            if (phase == Phase::Startup) {
                QVERIFY(m_job.kill());
                QVERIFY(m_job.startOnly());
                return;
            }
            if (phase == Phase::Restore) {
                // Without an openvpn that runs its script, the daemon restores by itself.
                ::kill(static_cast<pid_t>(standins::openvpnStarts().last().pid), SIGKILL);
                client.disconnectTunnel();
            } else if (phase == Phase::Disconnect) {
                client.disconnectTunnel();
            }
        }
        client.endpointSocket().flush();
    }

    /// @return how long a phase takes when nobody interrupts it, in microseconds.
    qint64 lengthOf(Phase phase)
    {
        if (phase == Phase::Connected)
            return 100'000; // nothing happens in it, however long it is
        Client client;
        enter(phase, client);
        if (QTest::currentTestFailed())
            return 0;
        QElapsedTimer timer;
        timer.start();
        if (phase == Phase::Startup) {
            const auto isRestored = [this] {
                return m_job.daemon().count(QStringLiteral("check DNS result  true")) == 1;
            };
            [&] { QTRY_VERIFY(isRestored()); }();
        } else {
            const int answers = phase == Phase::Connect ? 1 : 2;
            while (client.answers().size() < answers && !timer.hasExpired(5'000))
                QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        }
        return timer.nsecsElapsed() / 1'000;
    }

    /// Kills the daemon once at each of kPoints points of time, spread evenly over one half of the
    /// phase.
    void killAllOver(Phase phase, Half half)
    {
        QVERIFY(m_job.start());
        const qint64 length = lengthOf(phase);
        QVERIFY(!QTest::currentTestFailed());
        QVERIFY(m_job.kill());

        int changed = 0;
        for (int point = 0; point < kPoints; ++point) {
            const int place = half == Half::First ? point : kPoints + point;
            QVERIFY(m_job.start());
            compareSettings();
            QVERIFY2(!QTest::currentTestFailed(), qPrintable(QString::number(point)));
            {
                Client client;
                enter(phase, client);
                QVERIFY(!QTest::currentTestFailed());
                QThread::usleep(static_cast<unsigned long>(length * place / (2 * kPoints)));
                QVERIFY(m_job.kill());
            }
            changed += !backups().isEmpty();
            QCOMPARE(standins::runningOpenvpns(), 0);
        }
        QVERIFY(m_job.start());
        compareSettings();
        qInfo("%d kills over %lld ms, %d of them left the settings changed", kPoints,
              length / 1'000, changed);
        if (half == Half::First)
            QVERIFY(changed > 0);
    }

private Q_SLOTS:
    void init()
    {
        for (const Settings &settings : usersSettings()) {
            standins::setDns(settings.service,
                             settings.servers.isEmpty() ? QStringList{QStringLiteral("Empty")}
                                                        : settings.servers,
                             settings.domains.isEmpty() ? QStringList{QStringLiteral("Empty")}
                                                        : settings.domains);
        }
    }

    void killedEarlyInAConnect() { killAllOver(Phase::Connect, Half::First); }
    void killedLateInAConnect() { killAllOver(Phase::Connect, Half::Second); }
    void killedWhileConnected() { killAllOver(Phase::Connected, Half::First); }
    void killedEarlyInADisconnect() { killAllOver(Phase::Disconnect, Half::First); }
    void killedLateInADisconnect() { killAllOver(Phase::Disconnect, Half::Second); }
    void killedEarlyInARestore() { killAllOver(Phase::Restore, Half::First); }
    void killedLateInARestore() { killAllOver(Phase::Restore, Half::Second); }
    void killedEarlyInTheRestoreAtItsStart() { killAllOver(Phase::Startup, Half::First); }
    void killedLateInTheRestoreAtItsStart() { killAllOver(Phase::Startup, Half::Second); }

    /// Where nobody ends what the daemon leaves, the tunnel lives on without it.
    void openvpnThatSurvivesKeepsItsTunnelButNotTheDnsSettings()
    {
        QVERIFY(m_job.start());
        {
            Client client;
            bringTunnelUp(client);
            QVERIFY(!QTest::currentTestFailed());
            QVERIFY(m_job.kill(LaunchdJob::Survivors::StayAlive));
        }
        const auto survivor = standins::openvpnStarts().last();
        QVERIFY(standins::isAlive(survivor.pid));

        QVERIFY(m_job.start());
        compareSettings();
        QVERIFY(!QTest::currentTestFailed());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.disconnectTunnel();
        QTRY_COMPARE(client.outcome(), QStringLiteral("success"));
        QVERIFY(standins::isAlive(survivor.pid)); // the new daemon does not know of it

        ::kill(static_cast<pid_t>(survivor.pid), SIGTERM);
        QTRY_VERIFY(!standins::isAlive(survivor.pid));
        compareSettings();
    }

    /// What a script was writing when it was killed is no backup, and does not stay for good.
    void halfWrittenBackupsAreRemovedByTheNextTunnel()
    {
        QVERIFY(m_job.start());
        standins::writeBackup(QStringLiteral(".saving_999999"), "192.0.2.1\n");
        Client client;
        bringTunnelUp(client);
        QVERIFY(!QTest::currentTestFailed());
        QCOMPARE(standins::backupFiles().filter(QStringLiteral(".saving_")), QStringList());
    }
};

QTEST_GUILESS_MAIN(CrashDns)
#include "crash_dns.moc"
