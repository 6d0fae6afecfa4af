#include "daemonprocess.h"
#include "files.h"
#include "privateroot.h"
#include "standins.h"
#include "vpnctlprocess.h"
#include "vpnlab.h"

#include <QtTest/QtTest>

#include <csignal>

namespace {

const QString kConnect = "connect --server /run/vpn-lab/record.json --json";
const QStringList kDnsBefore{"192.0.2.53"};

QStringList dnsServers()
{
    return standins::dnsServers("Wi-Fi");
}

QJsonObject objectIn(const QString &line)
{
    return QJsonDocument::fromJson(line.toUtf8()).object();
}

QString eventsIn(const QStringList &lines)
{
    QStringList events;
    for (const QString &line : lines)
        events.append(objectIn(line)["event"].toString());
    return events.join(' ');
}

} // namespace

/// What vpnctl says of a tunnel that the real openvpn makes, and ends.
class VpnctlTunnel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        standins::setDns("Wi-Fi", kDnsBefore, {"home.test"});
        QVERIFY(vpnlab::up());
        m_daemon = std::make_unique<DaemonProcess>(DaemonProcess::Openvpn::Real);
        QVERIFY(m_daemon->start());
    }

    void cleanup() { m_daemon.reset(); }

    void tunnelThatGoesIsBroughtUpAgain()
    {
        VpnctlProcess vpnctl;
        vpnctl.begin(kConnect);
        QTRY_COMPARE(eventsIn(vpnctl.lines()), "endpoint connecting answer up");
        QCOMPARE(objectIn(vpnctl.lines().constLast())["interface"].toString(), "tun0");
        QVERIFY(dnsServers() != kDnsBefore);

        const QString children = QString("/proc/%1/task/%1/children").arg(m_daemon->pid());
        const int openvpn = lab::contentOf(children).trimmed().toInt();
        QVERIFY(openvpn > 0 && ::kill(openvpn, SIGKILL) == 0);
        QTRY_VERIFY_WITH_TIMEOUT(eventsIn(vpnctl.lines()).contains(" up gone"), 2'000);
        QTRY_VERIFY(eventsIn(vpnctl.lines()).endsWith("gone disconnecting answer retrying"));
        QCOMPARE(dnsServers(), kDnsBefore);
        QTRY_VERIFY(eventsIn(vpnctl.lines()).endsWith("retrying connecting answer up"));
        QVERIFY(dnsServers() != kDnsBefore);

        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), 0);
        QCOMPARE(dnsServers(), kDnsBefore);
    }

    void statusFindsADetachedTunnel()
    {
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(kConnect + " --detach"), 0);
        QJsonObject seen = status(vpnctl);
        QJsonObject tunnel = seen["interfaces"].toArray()[0].toObject();
        QCOMPARE(tunnel["name"].toString(), "tun0");
        QVERIFY(tunnel["address"].toString().startsWith("10.8.0."));
        QCOMPARE(seen["dns"].toArray(), QJsonArray{"10.8.0.1"});
        QVERIFY(seen["backups"].toArray().contains("TalvexFreeVPN_dns_Wi-Fi"));
        QCOMPARE(seen["endpoints"].toArray(), QJsonArray{1});

        QCOMPARE(QProcess::execute("ping", {"-qc1", "10.8.0.1"}), 0);
        seen = status(vpnctl);
        for (const char *direction : {"bytesIn", "bytesOut"}) {
            const int before = tunnel[direction].toInt();
            QVERIFY(seen["interfaces"].toArray()[0].toObject()[direction].toInt() >= before + 84);
        }

        QCOMPARE(vpnctl.run("disconnect --endpoint 1"), 0);
        QCOMPARE(vpnctl.run("status"), 0);
        QCOMPARE(vpnctl.lines().mid(0, 4),
                 (QStringList{"Tunnel interfaces: none", "DNS servers in use: 192.0.2.53",
                              "Backups of DNS settings: none", "Endpoints with a socket: 1"}));
    }

    void reportHasNoKeyAndNoAddressOfTheRecord()
    {
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(kConnect + " --detach"), 0);
        const QString log = m_daemon->log().join('\n');
        QVERIFY(log.contains("[AF_INET]192.0.2.2"));
        const VpnServerInformation server = vpnlab::server();
        lab::writeFile("/var/log/talvexvpnd.log", (log + server.key + server.ca).toUtf8());

        const QString folder = "/tmp/report";
        QCOMPARE(vpnctl.run("report " + folder), 0);
        QString content;
        for (const QString &line : vpnctl.lines())
            content += lab::contentOf(line.section(':', 0, 0));
        QCOMPARE(QDir(folder).entryList(QDir::Files).size(), vpnctl.lines().size());
        for (const char *text :
             {"vpnctl 0.", "OpenVPN 2.", "Tunnel interfaces: tun0", "The daemon is there",
              "exit status 113", "Initialization Sequence Completed"})
            QVERIFY2(content.contains(QLatin1String(text)), text);
        for (const QString &secret : (server.key + server.ca).split('\n'))
            QVERIFY2(secret.isEmpty() || !content.contains(secret), qPrintable(secret));
        QVERIFY(!content.contains(server.host));

        QCOMPARE(vpnctl.run("report " + folder), 2); // which is there now
    }

private:
    /// @return what "vpnctl status" observes.
    static QJsonObject status(VpnctlProcess &vpnctl)
    {
        vpnctl.run("status --json");
        return objectIn(vpnctl.lines().value(0));
    }

    std::unique_ptr<DaemonProcess> m_daemon;
};

QTEST_GUILESS_MAIN(VpnctlTunnel)
#include "tst_vpnctl_tunnel.moc"
