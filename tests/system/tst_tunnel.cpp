#include "client.h"
#include "daemonprocess.h"
#include "privateroot.h"
#include "standins.h"
#include "vpnlab.h"

#include <QtTest/QtTest>

namespace {

bool canPing(const QString &address)
{
    return QProcess::execute("ping", {"-qc1", "-W2", address}) == 0;
}

} // namespace

/// The daemon with the real openvpn, against real servers in another network namespace.
class TestTunnel : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<DaemonProcess> m_daemon;
    QScopedPointer<Client> m_client;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        standins::setDns("Wi-Fi", {"192.0.2.53"}, {"home.test"});
        QVERIFY(vpnlab::up());
        m_daemon.reset(new DaemonProcess(DaemonProcess::Openvpn::Real));
        QVERIFY(m_daemon->start());
        m_client.reset(new Client);
        QVERIFY(m_client->attachToNewEndpoint());
    }

    void cleanup()
    {
        m_client.reset();
        m_daemon.reset();
    }

    void trafficGoesThroughTheTunnel_data()
    {
        QTest::addColumn<bool>("isUdp");
        QTest::addColumn<QString>("serverInTunnel");
        QTest::newRow("UDP") << true << "10.8.0.1";
        QTest::newRow("TCP") << false << "10.9.0.1";
    }

    void trafficGoesThroughTheTunnel()
    {
        QFETCH(bool, isUdp);
        QFETCH(QString, serverInTunnel);
        isUdp ? m_client->connectUdp(vpnlab::server()) : m_client->connectTcp(vpnlab::server());
        QTRY_COMPARE_WITH_TIMEOUT(m_client->outcome(), "success", 17'000);
        QVERIFY(canPing(serverInTunnel));
        QCOMPARE(standins::dnsServers("Wi-Fi"), QStringList{serverInTunnel});
        QCOMPARE(standins::searchDomains("Wi-Fi"), QStringList{"talvex.test"});

        m_client->disconnectTunnel();
        QTRY_COMPARE_WITH_TIMEOUT(m_client->outcome(1), "success", 17'000);
        QVERIFY(!canPing(serverInTunnel));
        QCOMPARE(standins::dnsServers("Wi-Fi"), QStringList{"192.0.2.53"});
        QCOMPARE(standins::searchDomains("Wi-Fi"), QStringList{"home.test"});
        QCOMPARE(standins::backupFiles(), QStringList());
        QCOMPARE(QDir("/tmp").entryList({"talvexvpnd.*"}), QStringList());
    }

    /// The laboratory's servers are called "Initialization Sequence Completed", and openvpn prints
    /// the name that it refuses.
    void serverOfAnotherAuthorityIsRefused()
    {
        VpnServerInformation server = vpnlab::server();
        server.ca = server.cert; // signed by the right one, but not it
        m_client->connectUdp(server);
        QTRY_COMPARE_WITH_TIMEOUT(m_client->outcome(),
                                  "warning.can_not_open_vpn_check_is_admin_granted", 17'000);
        QVERIFY(!m_daemon->log()
                     .filter("VERIFY ERROR")
                     .filter("Initialization Sequence Completed")
                     .isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestTunnel)
#include "tst_tunnel.moc"
