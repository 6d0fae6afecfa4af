#include "client.h"
#include "daemonprocess.h"
#include "standins.h"
#include "vpnlab.h"

#include <QtTest/QtTest>

namespace {

bool canPing(const QString &address)
{
    return QProcess::execute(QStringLiteral("ping"),
                             {QStringLiteral("-c"), QStringLiteral("1"), QStringLiteral("-W"),
                              QStringLiteral("2"), QStringLiteral("-q"), address})
        == 0;
}

} // namespace

/// The daemon with the real openvpn, against real servers in another network namespace.
class DaemonTunnel : public QObject
{
    Q_OBJECT

private:
    void talkThroughTunnel(bool udp, const QString &serverInTunnel)
    {
        standins::setDns(QStringLiteral("Wi-Fi"), {QStringLiteral("192.0.2.53")},
                         {QStringLiteral("home.test")});
        QVERIFY(vpnlab::up());
        const VpnServerInformation server = vpnlab::server();
        QVERIFY(server.ca.startsWith(QStringLiteral("-----BEGIN CERTIFICATE-----")));

        DaemonProcess daemon(DaemonProcess::Openvpn::Real);
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        QVERIFY(!canPing(serverInTunnel));
        if (udp)
            client.connectUdp(server);
        else
            client.connectTcp(server);
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 1, 17'000);
        QCOMPARE(client.outcome(), QStringLiteral("success"));
        QVERIFY(canPing(serverInTunnel));
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")), QStringList{serverInTunnel});
        QCOMPARE(standins::searchDomains(QStringLiteral("Wi-Fi")),
                 QStringList{QStringLiteral("talvex.test")});
        QVERIFY(!standins::backupFiles().isEmpty());

        client.disconnectTunnel();
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 2, 17'000);
        QCOMPARE(client.outcome(1), QStringLiteral("success"));
        QVERIFY(!canPing(serverInTunnel));
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 QStringList{QStringLiteral("192.0.2.53")});
        QCOMPARE(standins::searchDomains(QStringLiteral("Wi-Fi")),
                 QStringList{QStringLiteral("home.test")});
        QCOMPARE(standins::backupFiles(), QStringList());
        QCOMPARE(QDir(QStringLiteral("/tmp")).entryList({QStringLiteral("talvexvpnd.*")}),
                 QStringList());
    }

private Q_SLOTS:
    void cleanup() { QVERIFY(vpnlab::down()); }

    void trafficGoesThroughAUdpTunnel() { talkThroughTunnel(true, QStringLiteral("10.8.0.1")); }

    void trafficGoesThroughATcpTunnel() { talkThroughTunnel(false, QStringLiteral("10.9.0.1")); }

    void serverThatIsGoneIsReported()
    {
        QVERIFY(vpnlab::up());
        VpnServerInformation server = vpnlab::server();
        server.tcpPort = 444; // nobody listens there
        DaemonProcess daemon(DaemonProcess::Openvpn::Real);
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectTcp(server);
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 1, 20'000);
        QVERIFY(!client.answers().first().result.success);
        QVERIFY(client.outcome().startsWith(QStringLiteral("warning.")));
    }

    void foreignCertificateAuthorityIsRefused()
    {
        QVERIFY(vpnlab::up());
        VpnServerInformation server = vpnlab::server();
        server.ca = server.cert; // signed by the right one, but not it
        DaemonProcess daemon(DaemonProcess::Openvpn::Real);
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(server);
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 1, 20'000);
        QVERIFY(!client.answers().first().result.success);
    }
};

QTEST_GUILESS_MAIN(DaemonTunnel)
#include "daemon_tunnel.moc"
