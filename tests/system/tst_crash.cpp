#include "client.h"
#include "files.h"
#include "launchd.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>

using standins::serverFor;

namespace {

struct Settings
{
    QString service;
    QStringList servers;
    QStringList domains;
};

// What the users of the four services have set.
const QVector<Settings> kUsersSettings{
    {"Wi-Fi", {"192.0.2.53", "2001:db8::53"}, {"home.test", "lan.test"}},
    {"Thunderbolt Bridge", {}, {}},
    {"iPhone USB", {"198.51.100.1"}, {}},
    {"Old Modem", {}, {"modem.test"}}};

/// In front of networksetup. Before or after the change that the file names, the daemon, which
/// leads its process group, is killed, and the script at work gets no further.
const QByteArray kKiller = R"bash(sleep "$(cat /tmp/seconds 2>/dev/null || echo 0)"
if [[ $1 == -set* && -s /tmp/kill-at ]]; then
    read -r when left </tmp/kill-at
    echo "$when $((left - 1))" >/tmp/kill-at
fi
die() { kill -KILL $(ps -o pgid= -p $$); sleep 10; }
[[ $when$left != before1 ]] || die
"$0.kept" "$@" || exit
[[ $when$left != after1 ]] || die
)bash";

/// @param point "before" or "after", and the number of the change
void killAt(const QByteArray &point)
{
    lab::writeFile("/tmp/kill-at", point + '\n');
}

void compareSettings()
{
    for (const Settings &settings : kUsersSettings) {
        QCOMPARE(standins::dnsServers(settings.service), settings.servers);
        QCOMPARE(standins::searchDomains(settings.service), settings.domains);
    }
    QCOMPARE(standins::backupFiles().filter(QRegularExpression("^Talvex")), QStringList());
}

void bringTunnelUp(Client &client)
{
    QVERIFY(client.attachToNewEndpoint());
    client.connectUdp(serverFor("connects"));
    QTRY_COMPARE(client.outcome(), "success");
    QCOMPARE(standins::dnsServers("Wi-Fi"), QStringList{"10.8.0.1"});
}

} // namespace

/// The daemon killed while DNS settings are changed, and what its next start makes of it. The
/// scripts are the real ones, run by bash.
class TestCrash : public QObject
{
    Q_OBJECT

public:
    enum class During { Connect, Tunnel, Disconnect, Restore, Start };
    Q_ENUM(During)

private Q_SLOTS:
    void initTestCase() { standins::wrapNetworksetup(kKiller); }

    void init()
    {
        lab::resetPrivateRoot();
        const auto orEmpty = [](const QStringList &values) {
            return values.isEmpty() ? QStringList{"Empty"} : values;
        };
        for (const Settings &settings : kUsersSettings)
            standins::setDns(settings.service, orEmpty(settings.servers),
                             orEmpty(settings.domains));
    }

    void nextStartGivesTheSettingsBack_data()
    {
        QTest::addColumn<During>("during");
        QTest::addColumn<QByteArray>("point");
        QTest::newRow("killed while connected") << During::Tunnel << QByteArray();
        // The servers of the first of three services, and the domains of the second.
        for (const char *point : {"before 1", "after 1", "before 4", "after 4"}) {
            const auto row = [point](const char *when, During during) {
                QTest::addRow("killed in %s %s", when, point) << during << QByteArray(point);
            };
            row("a connect", During::Connect);
            row("a disconnect", During::Disconnect);
            row("the daemon's own restore", During::Restore);
            row("the restore at its start", During::Start);
        }
    }

    void nextStartGivesTheSettingsBack()
    {
        QFETCH(During, during);
        QFETCH(QByteArray, point);
        LaunchdJob job;
        QVERIFY(job.run());
        Client client;
        if (during == During::Connect) {
            QVERIFY(client.attachToNewEndpoint());
            killAt(point);
            client.connectUdp(serverFor("connects"));
        } else {
            bringTunnelUp(client);
            QVERIFY(!QTest::currentTestFailed());
        }
        // In these cases no openvpn is left that would run its script.
        if (during != During::Connect && during != During::Disconnect)
            ::kill(static_cast<pid_t>(standins::openvpnStarts().last().pid), SIGKILL);
        if (during == During::Tunnel || during == During::Start)
            QVERIFY(job.crash());
        if (during == During::Disconnect || during == During::Restore) {
            killAt(point);
            client.disconnectTunnel();
        }
        if (during == During::Start) {
            killAt(point);
            QVERIFY(job.startOnly());
        }
        QTRY_COMPARE(job.state(), QProcess::NotRunning);
        QVERIFY(!standins::backupFiles().isEmpty());
        QVERIFY(job.crash());
        QCOMPARE(standins::runningOpenvpns(), 0);

        QVERIFY(job.run());
        compareSettings();
    }

    /// A Mac whose networksetup is so slow that a restore is cut off at its limit.
    void settingsComeBackThoughOpenvpnIsKilledAmongThem()
    {
        lab::writeFile("/tmp/seconds", "0.1");
        LaunchdJob job;
        QVERIFY(job.run());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor("connects"));
        // In the middle of its up script, with more backups than a restore gets done.
        QTRY_COMPARE(standins::dnsServers("iPhone USB"), QStringList{"10.8.0.1"});
        lab::writeFile("/tmp/seconds", "2");
        ::kill(pid_t(standins::openvpnStarts().first().pid), SIGKILL);
        client.disconnectTunnel(); // so that there is no further attempt

        QElapsedTimer timer;
        timer.start();
        QTRY_VERIFY_WITH_TIMEOUT(client.answers().size() == 2 && standins::backupFiles().isEmpty(),
                                 60'000);
        QVERIFY(client.outcome() != "success");
        QVERIFY(timer.elapsed() > 10'000); // so one restore at least was cut off
        // No script is left that would change something.
        QTRY_VERIFY_WITH_TIMEOUT(QProcess::execute("pgrep", {"networksetup|update_conf"}) == 1,
                                 10'000);
        compareSettings();
    }

    /// Where nobody ends what the daemon leaves, the tunnel lives on without it.
    void openvpnThatSurvivesKeepsItsTunnelButNotTheDnsSettings()
    {
        LaunchdJob job;
        QVERIFY(job.run());
        {
            Client client;
            bringTunnelUp(client);
            QVERIFY(!QTest::currentTestFailed());
            QVERIFY(job.crash(LaunchdJob::Survivors::StayAlive));
        }
        const auto survivor = standins::openvpnStarts().last();
        QVERIFY(standins::isAlive(survivor.pid));

        QVERIFY(job.run());
        compareSettings();
        QVERIFY(!QTest::currentTestFailed());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.disconnectTunnel();
        QTRY_COMPARE(client.outcome(), "success");
        QVERIFY(standins::isAlive(survivor.pid)); // the new daemon does not know of it

        ::kill(static_cast<pid_t>(survivor.pid), SIGTERM);
        QTRY_VERIFY(!standins::isAlive(survivor.pid));
        compareSettings();
    }
};

QTEST_GUILESS_MAIN(TestCrash)
#include "tst_crash.moc"
