#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "measures.h"
#include "privateroot.h"
#include "rawconnection.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <algorithm>
#include <vector>

using standins::serverFor;

namespace {

constexpr int kLimit = 256; ///< of descriptors, as launchd gives it; see kWrapper
constexpr int kConnectionReserve = 32;
constexpr int kEndpointReserve = 64;
constexpr int kRestoreNeeds = 12; ///< on macOS; 8 on Linux
constexpr int kFlood = 1'000;

/// What the test was started with is closed, so that every number below the limit is free.
const QString kWrapper = QStringLiteral("for file in /proc/$$/fd/*; do\n"
                                        "    ((${file##*/} < 3)) || eval \"exec ${file##*/}>&-\"\n"
                                        "done\n"
                                        "exec prlimit --nofile=256 \"$0\"");
const QString kSuccess = QStringLiteral("success");
const QString kCannotStart = QStringLiteral("warning.open_vpn_running_fails_check_apps");
const QString kWiFi = QStringLiteral("Wi-Fi");
const QStringList kUsersDns{QStringLiteral("192.0.2.53")};
const QStringList kTunnelsDns{QStringLiteral("10.8.0.1")};

} // namespace

/// The shipped daemon with 256 descriptors, and clients that want more.
class FloodTest : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<DaemonProcess> m_daemon;
    QScopedPointer<Client> m_early; ///< has an endpoint from before the flood

    int freeDescriptors() const { return kLimit - m_daemon->descriptors(); }

    static void bringTunnelUpAndDown(Client &client)
    {
        const int before = client.answers().size();
        client.connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(client.answers().size(), before + 1);
        QCOMPARE(client.outcome(before), kSuccess);
        QCOMPARE(standins::dnsServers(kWiFi), kTunnelsDns);
        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), before + 2);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(measures::allowDescriptors(4'096)); }

    void init()
    {
        lab::resetPrivateRoot();
        m_daemon.reset(new DaemonProcess);
        m_daemon->setWrapper({QStringLiteral("/bin/bash"), QStringLiteral("-c"), kWrapper});
        QVERIFY(m_daemon->start());
        m_early.reset(new Client);
        QVERIFY(m_early->attachToNewEndpoint());
        standins::setDns(kWiFi, kUsersDns, {QStringLiteral("home.test")});
    }

    void cleanup()
    {
        QVERIFY(m_daemon->isRunning());
        m_early.reset();
        m_daemon.reset();
    }

    void connectionsPass_data()
    {
        QTest::addColumn<bool>("isMain");
        QTest::newRow("main socket") << true;
        QTest::newRow("endpoint") << false;
    }

    void connectionsPass()
    {
        QFETCH(bool, isMain);
        const int letIn = freeDescriptors() - kConnectionReserve;
        RawConnections flood = openConnections(
            isMain ? shared::getIpcServiceUrl() : shared::getIpcProcessUrl(m_early->endpoint()),
            kFlood);
        // Some are let in; all the others find themselves closed.
        QTRY_COMPARE_WITH_TIMEOUT(closedByPeer(flood), kFlood - letIn, 20'000);
        QCOMPARE(freeDescriptors(), kConnectionReserve);
        QTRY_COMPARE(
            m_daemon->count(QStringLiteral("Connection refused: too few descriptors are left")),
            kFlood - letIn);
        bringTunnelUpAndDown(*m_early);
        QVERIFY(!QTest::currentTestFailed());

        flood.clear();
        QTRY_VERIFY(freeDescriptors() > kLimit / 2);
        Client late;
        QVERIFY(late.attachToNewEndpoint());
        bringTunnelUpAndDown(late);
        QVERIFY(!QTest::currentTestFailed());
        Client guest;
        QVERIFY(guest.attach(m_early->endpoint()));
        bringTunnelUpAndDown(guest);
    }

    void endpointsAreRefusedWhileATunnelStillFits()
    {
        Client flood;
        QVERIFY(flood.connectToMainSocket());
        int endpoint = 0;
        int last = 0;
        while ((endpoint = flood.createEndpoint()) > 0)
            last = endpoint;
        QCOMPARE(endpoint, -1);
        QCOMPARE(freeDescriptors(), kEndpointReserve);
        QTRY_COMPARE(m_daemon->linesWith(QStringLiteral("\"Unable to start the server: ")),
                     QStringList{QStringLiteral("\"Unable to start the server: too few "
                                                "descriptors are left. IpcServer\"")});
        bringTunnelUpAndDown(*m_early);
        QVERIFY(!QTest::currentTestFailed());

        // With the endpoints taken, connections take what is left, but for their own reserve.
        RawConnections connections = openConnections(shared::getIpcProcessUrl(last), kLimit);
        QTRY_COMPARE(closedByPeer(connections), kLimit - (kEndpointReserve - kConnectionReserve));
        bringTunnelUpAndDown(*m_early);
        QVERIFY(!QTest::currentTestFailed());

        // Endpoints stay, so new ones are still refused; what there is serves whoever comes.
        connections.clear();
        QTRY_COMPARE(freeDescriptors(), kEndpointReserve);
        Client late;
        QVERIFY(late.connectToMainSocket());
        QCOMPARE(late.createEndpoint(), -1);
        QVERIFY(late.attach(m_early->endpoint()));
        bringTunnelUpAndDown(late);
    }

    void tunnelsOnAllEndpointsLeaveSocketsOpen()
    {
        std::vector<QSharedPointer<Client>> clients;
        for (int i = 0; i < 60; ++i) {
            clients.push_back(QSharedPointer<Client>::create());
            QVERIFY(clients.back()->attachToNewEndpoint());
            clients.back()->mainSocket().abort();
        }
        // An attempt needs more than the tunnel that comes of it, so who is refused tries again.
        std::vector<Client *> waiting;
        for (const auto &client : clients)
            waiting.push_back(client.data());
        std::size_t formerlyWaiting = clients.size() + 1;
        for (int round = 0; waiting.size() < formerlyWaiting; ++round) {
            formerlyWaiting = waiting.size();
            for (Client *client : waiting)
                client->connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
            std::vector<Client *> refused;
            for (Client *client : waiting) {
                QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), round + 1, 30'000);
                if (client->outcome(round) == kCannotStart)
                    refused.push_back(client);
                else
                    QCOMPARE(client->outcome(round), kSuccess);
            }
            waiting = refused;
        }
        const int up = static_cast<int>(clients.size() - waiting.size());
        qInfo("%d of %d tunnels are up, %d descriptors are left", up, int(clients.size()),
              freeDescriptors());
        QVERIFY(up > 15 && up < 60);
        QVERIFY(freeDescriptors() < 64); // so it is not for something else that some are refused
        QCOMPARE(standins::runningOpenvpns(), up);

        // Whoever comes now is refused, and no socket is lost by that.
        const RawConnections refused = openConnections(shared::getIpcServiceUrl(), 50);
        QTRY_VERIFY(closedByPeer(refused) > 0);
        QVERIFY(freeDescriptors() >= kRestoreNeeds);

        // What is left is enough to restore the DNS settings after an openvpn that cannot.
        standins::setDns(kWiFi, kTunnelsDns, {QStringLiteral("tunnel.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.53\n");
        const auto withTunnel =
            std::find_if(clients.begin(), clients.end(), [&waiting](const auto &client) {
                return std::find(waiting.begin(), waiting.end(), client.data()) == waiting.end();
            });
        const int answers = (*withTunnel)->answers().size();
        (*withTunnel)->disconnectTunnel();
        QTRY_COMPARE((*withTunnel)->answers().size(), answers + 1);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
    }

    /// Very many times the same, and nothing piles up.
    void hundredsOfTunnelsLeaveNothing()
    {
        constexpr int kEndpoints = 20;
        constexpr int kCycles = 9; // on each endpoint
        constexpr int kWarmUp = 3;
        std::vector<QSharedPointer<Client>> clients;
        for (int i = 0; i < kEndpoints; ++i) {
            clients.push_back(QSharedPointer<Client>::create());
            QVERIFY(clients.back()->attachToNewEndpoint());
        }
        int descriptors = 0;
        qint64 memory = 0;
        for (int cycle = 1; cycle <= kCycles; ++cycle) {
            for (const auto &client : clients) {
                client->connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
            }
            for (const auto &client : clients) {
                QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), 2 * cycle - 1, 20'000);
                QCOMPARE(client->outcome(2 * cycle - 2), kSuccess);
                client->disconnectTunnel();
            }
            for (const auto &client : clients)
                QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), 2 * cycle, 20'000);
            if (cycle == kWarmUp) {
                descriptors = m_daemon->descriptors();
                memory = m_daemon->residentKiB();
            }
        }
        QCOMPARE(standins::openvpnStarts().size(), kEndpoints * kCycles);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(m_daemon->descriptors(), descriptors);
        const qint64 growth = m_daemon->residentKiB() - memory;
        qInfo("grown by %lld KiB", static_cast<long long>(growth));
        if (measures::kResidentMemoryCounts)
            QVERIFY2(growth < 512, qPrintable(QString::number(growth)));
    }
};

QTEST_GUILESS_MAIN(FloodTest)
#include "tst_flood.moc"
