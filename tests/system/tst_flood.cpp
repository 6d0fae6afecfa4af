#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "measures.h"
#include "privateroot.h"
#include "rawconnection.h"
#include "standins.h"

#include <QtTest/QtTest>

using standins::serverFor;

namespace {

constexpr int kLimit = 256; ///< of descriptors, as launchd gives it; see kWrapper
constexpr int kRestoreNeeds = 12; ///< on macOS; 8 on Linux
constexpr int kFlood = 1'000;

/// What the test was started with is closed, so that every number below the limit is free.
const QString kWrapper = "for file in /proc/$$/fd/*; do\n"
                         "    ((${file##*/} < 3)) || eval \"exec ${file##*/}>&-\"\n"
                         "done\n"
                         "exec prlimit --nofile=256 \"$0\"";
const QString kSuccess = "success";
const QString kWiFi = "Wi-Fi";
const QStringList kUsersDns{"192.0.2.53"};
const QStringList kTunnelsDns{"10.8.0.1"};

} // namespace

/// The shipped daemon with 256 descriptors, and clients that want more.
class FloodTest : public QObject
{
    Q_OBJECT

private:
    int freeDescriptors() const { return kLimit - m_daemon->descriptors(); }

    static void bringTunnelUpAndDown(Client &client)
    {
        const int before = client.answers().size();
        client.connectUdp(serverFor("connects"));
        QTRY_COMPARE(client.outcome(before), kSuccess);
        QCOMPARE(standins::dnsServers(kWiFi), kTunnelsDns);
        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), before + 2);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
    }

    static Clients openEndpoints(int number)
    {
        Clients clients;
        for (int i = 0; i < number; ++i) {
            clients.push_back(std::move(attachedClients(1).front()));
            clients.back()->mainSocket().abort();
        }
        return clients;
    }

    std::unique_ptr<DaemonProcess> m_daemon;
    std::unique_ptr<Client> m_early; ///< has an endpoint from before the flood

private Q_SLOTS:
    void initTestCase() { QVERIFY(measures::allowDescriptors(4'096)); }

    void init()
    {
        lab::resetPrivateRoot();
        m_daemon = std::make_unique<DaemonProcess>();
        m_daemon->setWrapper({"/bin/bash", "-c", kWrapper});
        QVERIFY(m_daemon->start());
        m_early = std::make_unique<Client>();
        QVERIFY(m_early->attachToNewEndpoint());
        standins::setDns(kWiFi, kUsersDns, {"home.test"});
    }

    void cleanup()
    {
        QVERIFY(m_daemon->isRunning());
        m_early.reset();
        m_daemon.reset();
    }

    void floodsPass_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<int>("left");
        QTest::newRow("connections to the main socket") << "main" << 32;
        QTest::newRow("connections to an endpoint") << "endpoint" << 32;
        QTest::newRow("endpoints") << "endpoints" << 64;
    }

    /// What an early client has still works meanwhile, and a late one is served afterwards.
    void floodsPass()
    {
        QFETCH(QString, what);
        QFETCH(int, left);
        Client greedy;
        QVERIFY(greedy.connectToMainSocket());
        const int letIn = freeDescriptors() - left;
        RawConnections flood;
        if (what == "endpoints") {
            while (greedy.createEndpoint() > 0) {
            }
            QTRY_COMPARE(m_daemon->linesWith("\"Unable to start the server: "),
                         QStringList{"\"Unable to start the server: too few "
                                     "descriptors are left. IpcServer\""});
        } else {
            flood = openConnections(what == "main" ? shared::getIpcServiceUrl()
                                                   : shared::getIpcProcessUrl(m_early->endpoint()),
                                    kFlood);
            // Some are let in; all the others find themselves closed.
            QTRY_COMPARE_WITH_TIMEOUT(closedByPeer(flood), kFlood - letIn, 20'000);
            QTRY_COMPARE(m_daemon->count("Connection refused: too few descriptors are left"),
                         kFlood - letIn);
        }
        QCOMPARE(freeDescriptors(), left);
        bringTunnelUpAndDown(*m_early);

        // Endpoints stay, so new ones are still refused; what there is serves whoever comes.
        flood.clear();
        QTRY_VERIFY(what == "endpoints" || freeDescriptors() > kLimit / 2);
        Client late;
        QVERIFY(late.connectToMainSocket());
        QCOMPARE(late.createEndpoint() > 0, what != "endpoints");
        QVERIFY(late.attach(m_early->endpoint()));
        bringTunnelUpAndDown(late);
    }

    void tunnelsOnAllEndpointsLeaveSocketsOpen()
    {
        const auto clients = openEndpoints(60);
        std::vector<Client *> up;
        for (const auto &client : clients) {
            client->connectUdp(serverFor("prints-at-once-success"));
            QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), 1, 30'000);
            if (client->outcome() == kSuccess)
                up.push_back(client.get());
            else
                QCOMPARE(client->outcome(), "warning.open_vpn_running_fails_check_apps");
        }
        QVERIFY(up.size() > 15 && up.size() < clients.size());
        QVERIFY(freeDescriptors() < 64); // so it is not for something else that some are refused
        QCOMPARE(standins::runningOpenvpns(), int(up.size()));

        // New connections are refused, and no socket is lost by that.
        const RawConnections refused = openConnections(shared::getIpcServiceUrl(), 50);
        QTRY_VERIFY(closedByPeer(refused) > 0);
        QVERIFY(freeDescriptors() >= kRestoreNeeds);

        // Enough descriptors are left for the daemon to restore the DNS settings.
        standins::setDns(kWiFi, kTunnelsDns, {"tunnel.test"});
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "192.0.2.53\n");
        up.front()->disconnectTunnel();
        QTRY_COMPARE(up.front()->answers().size(), 2);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
    }

    /// Very many times the same, and nothing piles up.
    void hundredsOfTunnelsLeaveNothing()
    {
        constexpr int kCycles = 9; // on each endpoint
        constexpr int kWarmUp = 3;
        const auto clients = openEndpoints(20);
        int descriptors = 0;
        qint64 memory = 0;
        for (int cycle = 1; cycle <= kCycles; ++cycle) {
            for (const auto &client : clients)
                client->connectUdp(serverFor("prints-at-once-success"));
            for (const auto &client : clients) {
                QTRY_COMPARE_WITH_TIMEOUT(client->outcome(2 * cycle - 2), kSuccess, 20'000);
                client->disconnectTunnel();
            }
            for (const auto &client : clients)
                QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), 2 * cycle, 20'000);
            if (cycle == kWarmUp) {
                descriptors = m_daemon->descriptors();
                memory = m_daemon->residentKiB();
            }
        }
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(m_daemon->descriptors(), descriptors);
        QVERIFY(measures::growsByLess(memory, m_daemon->residentKiB(), 512));
    }
};

QTEST_GUILESS_MAIN(FloodTest)
#include "tst_flood.moc"
