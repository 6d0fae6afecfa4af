#include "guardedlocalserver.h"
#include "ipcurls.h"
#include "measures.h"
#include "rawconnections.h"
#include "client.h"
#include "daemonprocess.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>
#include <vector>

using standins::serverFor;

namespace {

constexpr int kLimit = 256;
constexpr int kFlood = 2'000;

const QString kSuccess = QStringLiteral("success");
const QString kCannotStart = QStringLiteral("warning.open_vpn_running_fails_check_apps");
const QString kWiFi = QStringLiteral("Wi-Fi");
const QStringList kUsersDns{QStringLiteral("192.0.2.53")};
const QStringList kTunnelsDns{QStringLiteral("10.8.0.1")};

} // namespace

/// The daemon with 256 descriptors, as launchd gives it, and clients that want more.
class DescriptorFlood : public QObject
{
    Q_OBJECT

private:
    DaemonProcess m_daemon;
    Client m_early; ///< has an endpoint from before the flood

    int freeDescriptors() const { return kLimit - m_daemon.descriptors(); }

    void bringTunnelUpAndDown(Client &client)
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

    /// Floods a socket, and looks after the endpoint that there was before.
    void floodWithConnections(const QString &socket)
    {
        RawConnections flood;
        const int letIn = freeDescriptors() - GuardedLocalServer::kConnectionReserve;
        QVERIFY(flood.open(socket, kFlood));
        // Some are let in; all the others find themselves closed.
        QTRY_COMPARE_WITH_TIMEOUT(flood.closedByDaemon(), kFlood - letIn, 20'000);
        QCOMPARE(freeDescriptors(), GuardedLocalServer::kConnectionReserve);
        QTRY_VERIFY(!m_daemon.linesWith(QStringLiteral("Connection refused: ")).isEmpty());

        bringTunnelUpAndDown(m_early);
        QVERIFY(!QTest::currentTestFailed());

        flood.closeAll();
        QTRY_VERIFY(freeDescriptors() > kLimit / 2);
        Client late;
        QVERIFY(late.attachToNewEndpoint());
        bringTunnelUpAndDown(late);
        QVERIFY(!QTest::currentTestFailed());
        Client guest;
        QVERIFY(guest.attach(m_early.endpoint()));
        bringTunnelUpAndDown(guest);
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(measures::allowDescriptors(8'192)); }

    void init()
    {
        m_daemon.setWrapper({QStringLiteral("prlimit"), QStringLiteral("--nofile=%1").arg(kLimit)});
        QVERIFY(m_daemon.start());
        QVERIFY(m_early.attachToNewEndpoint());
        standins::setDns(kWiFi, kUsersDns, {QStringLiteral("home.test")});
    }

    void cleanup() { QVERIFY(m_daemon.isRunning()); }

    void connectionsToTheMainSocketPass() { floodWithConnections(shared::getIpcServiceUrl()); }

    void connectionsToAnEndpointPass()
    {
        floodWithConnections(shared::getIpcProcessUrl(m_early.endpoint()));
    }

    void endpointsAreRefusedWhileATunnelStillFits()
    {
        QScopedPointer<Client> flood(new Client);
        QVERIFY(flood->connectToMainSocket());
        int endpoint = 0;
        int last = 0;
        while ((endpoint = flood->createEndpoint()) > 0)
            last = endpoint;
        QCOMPARE(endpoint, -1);
        QVERIFY2(last > kLimit / 2, qPrintable(QString::number(last)));
        QTRY_COMPARE(m_daemon.linesWith(QStringLiteral("\"Unable to start the server: ")),
                     QStringList{QStringLiteral("\"Unable to start the server: too few "
                                                "descriptors are left. IpcServer\"")});
        QVERIFY(freeDescriptors() >= GuardedLocalServer::kConnectionReserve);
        bringTunnelUpAndDown(m_early);
        QVERIFY(!QTest::currentTestFailed());

        // With the endpoints taken, connections take what is left, but for the same reserve.
        RawConnections connections;
        const int letIn = freeDescriptors() - GuardedLocalServer::kConnectionReserve;
        QVERIFY(connections.open(shared::getIpcProcessUrl(last), kLimit));
        QTRY_COMPARE(connections.closedByDaemon(), kLimit - letIn);
        QCOMPARE(freeDescriptors(), GuardedLocalServer::kConnectionReserve);
        bringTunnelUpAndDown(m_early);
        QVERIFY(!QTest::currentTestFailed());

        // Endpoints stay, so new ones are still refused; what there is serves whoever comes.
        connections.closeAll();
        flood.reset();
        QTRY_VERIFY(freeDescriptors() > GuardedLocalServer::kConnectionReserve);
        Client late;
        QVERIFY(late.connectToMainSocket());
        QCOMPARE(late.createEndpoint(), -1);
        QVERIFY(late.attach(m_early.endpoint()));
        bringTunnelUpAndDown(late);
    }

    void tunnelsOnAllEndpointsLeaveSocketsOpen()
    {
        std::vector<QSharedPointer<Client>> clients;
        for (int i = 0; i < 60; ++i) {
            clients.push_back(QSharedPointer<Client>::create());
            QVERIFY(clients.back()->connectToMainSocket());
            const int endpoint = clients.back()->createEndpoint();
            QVERIFY(endpoint > 0 && clients.back()->attach(endpoint));
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
        QVERIFY(freeDescriptors() < GuardedLocalServer::kConnectionReserve);
        QCOMPARE(standins::runningOpenvpns(), up);

        // Whoever comes now is refused, and no socket is lost by that.
        RawConnections refused;
        QVERIFY(refused.open(shared::getIpcServiceUrl(), 10));
        QVERIFY(refused.open(shared::getIpcProcessUrl(m_early.endpoint()), 10));
        QTRY_COMPARE(refused.closedByDaemon(), 20);

        // What is left is enough to restore the DNS settings after an openvpn that cannot.
        standins::setDns(kWiFi, kTunnelsDns, {QStringLiteral("tunnel.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.53\n");
        Client &first = *clients.front();
        QCOMPARE(first.outcome(), kSuccess);
        first.disconnectTunnel();
        QTRY_COMPARE(first.answers().size(), 2);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);

        for (const auto &client : clients)
            client->disconnectTunnel();
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 0, 40'000);
        clients.clear();
        Client late;
        QTRY_VERIFY(freeDescriptors() > 2 * GuardedLocalServer::kEndpointReserve);
        QVERIFY(late.attachToNewEndpoint());
        bringTunnelUpAndDown(late);
    }
};

QTEST_GUILESS_MAIN(DescriptorFlood)
#include "descriptor_flood.moc"
