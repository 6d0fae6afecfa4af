#include "daemonprocess.h"
#include "privateroot.h"
#include "standins.h"
#include "vpnctlprocess.h"
#include "vpnlab.h"

#include <QtTest/QtTest>

#include <csignal>

namespace {

const QString kConnect = QStringLiteral("connect --server /tmp/lab/record.json --json");
const QStringList kDnsBefore{QStringLiteral("192.0.2.53")};

QStringList dnsServers()
{
    return standins::dnsServers(QStringLiteral("Wi-Fi"));
}

QJsonObject objectIn(const QString &line)
{
    return QJsonDocument::fromJson(line.toUtf8()).object();
}

/// @return the names of the events from the last "up" or "gone" on.
QString lastEventsIn(const QStringList &lines)
{
    QStringList events;
    for (const QString &line : lines) {
        const QString event = objectIn(line)[QLatin1String("event")].toString();
        if (event == QLatin1String("up") || event == QLatin1String("gone"))
            events.clear();
        events.append(event);
    }
    return events.join(QLatin1Char(' '));
}

QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
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
        standins::setDns(QStringLiteral("Wi-Fi"), kDnsBefore, {QStringLiteral("home.test")});
        QVERIFY(vpnlab::up());
        m_daemon = std::make_unique<DaemonProcess>(DaemonProcess::Openvpn::Real);
        QVERIFY(m_daemon->start());
    }

    void cleanup()
    {
        m_daemon.reset();
        QVERIFY(vpnlab::down());
    }

    void tunnelThatGoesIsBroughtUpAgain()
    {
        VpnctlProcess vpnctl;
        vpnctl.begin(kConnect);
        QTRY_COMPARE(lastEventsIn(vpnctl.lines()), QStringLiteral("up"));
        QCOMPARE(objectIn(vpnctl.lines().constLast())[QLatin1String("interface")].toString(),
                 QStringLiteral("tun0"));
        QVERIFY(dnsServers() != kDnsBefore);

        QVERIFY(killOpenvpn());
        QTRY_VERIFY_WITH_TIMEOUT(lastEventsIn(vpnctl.lines()).startsWith(QLatin1String("gone")),
                                 2'000);
        QTRY_COMPARE(lastEventsIn(vpnctl.lines()),
                     QStringLiteral("gone disconnecting answer retrying"));
        QCOMPARE(dnsServers(), kDnsBefore);
        QTRY_COMPARE(lastEventsIn(vpnctl.lines()), QStringLiteral("up"));
        QVERIFY(dnsServers() != kDnsBefore);

        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), 0);
        QCOMPARE(dnsServers(), kDnsBefore);
    }

    void onceEndsWithTheTunnel()
    {
        VpnctlProcess vpnctl;
        vpnctl.begin(kConnect + QStringLiteral(" --once"));
        QTRY_COMPARE(lastEventsIn(vpnctl.lines()), QStringLiteral("up"));
        QVERIFY(killOpenvpn());
        QCOMPARE(vpnctl.exitCodeWithin(), 1);
        QCOMPARE(lastEventsIn(vpnctl.lines()), QStringLiteral("gone disconnecting answer"));
        QCOMPARE(dnsServers(), kDnsBefore);
    }

    void disconnectFromElsewhereIsNoReasonToConnectAgain()
    {
        VpnctlProcess holder;
        holder.begin(kConnect);
        QTRY_COMPARE(lastEventsIn(holder.lines()), QStringLiteral("up"));
        VpnctlProcess other;
        QCOMPARE(other.run(QStringLiteral("disconnect --endpoint 1")), 0);
        QCOMPARE(holder.exitCodeWithin(), 0);
        QVERIFY(lastEventsIn(holder.lines()).endsWith(QLatin1String("takenDown")));
    }

    void statusFindsADetachedTunnel()
    {
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(kConnect + QStringLiteral(" --detach")), 0);
        QJsonObject seen = status(vpnctl);
        QJsonObject tunnel = seen[QLatin1String("interfaces")].toArray()[0].toObject();
        QCOMPARE(tunnel[QLatin1String("name")].toString(), QStringLiteral("tun0"));
        QVERIFY(tunnel[QLatin1String("address")].toString().startsWith(QLatin1String("10.8.0.")));
        QCOMPARE(seen[QLatin1String("dns")].toArray(), QJsonArray{QStringLiteral("10.8.0.1")});
        QVERIFY(seen[QLatin1String("backups")].toArray().contains(
            QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")));
        QCOMPARE(seen[QLatin1String("endpoints")].toArray(), QJsonArray{1});

        QCOMPARE(QProcess::execute(QStringLiteral("ping"),
                                   {QStringLiteral("-qc1"), QStringLiteral("10.8.0.1")}),
                 0);
        seen = status(vpnctl);
        for (const QString &direction : {QStringLiteral("bytesIn"), QStringLiteral("bytesOut")}) {
            const int before = tunnel[direction].toInt();
            QVERIFY(seen[QLatin1String("interfaces")].toArray()[0].toObject()[direction].toInt()
                    >= before + 84);
        }

        QCOMPARE(vpnctl.run(QStringLiteral("disconnect --endpoint 1")), 0);
        QCOMPARE(vpnctl.run(QStringLiteral("status")), 0);
        QCOMPARE(vpnctl.lines().mid(0, 4),
                 (QStringList{QStringLiteral("Tunnel interfaces: none"),
                              QStringLiteral("DNS servers in use: 192.0.2.53"),
                              QStringLiteral("Backups of DNS settings: none"),
                              QStringLiteral("Endpoints with a socket: 1")}));
    }

    void reportHasNoKeyAndNoAddressOfTheRecord()
    {
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(kConnect + QStringLiteral(" --detach")), 0);
        const QString log = m_daemon->log().join(QLatin1Char('\n'));
        QVERIFY(log.contains(QLatin1String("[AF_INET]192.0.2.2")));
        QVERIFY(QDir().mkpath(QStringLiteral("/var/log")));
        QFile file(QStringLiteral("/var/log/talvexvpnd.log"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        const VpnServerInformation server = vpnlab::server();
        file.write((log + server.key + server.ca).toUtf8());
        file.close();

        const QString folder = QStringLiteral("/tmp/report");
        QCOMPARE(vpnctl.run(QStringLiteral("report ") + folder), 0);
        QString content;
        for (const QString &line : vpnctl.lines())
            content += contentOf(line.section(QLatin1Char(':'), 0, 0));
        QCOMPARE(QDir(folder).entryList(QDir::Files).size(), vpnctl.lines().size());
        for (const char *text :
             {"vpnctl 0.", "OpenVPN 2.", "Tunnel interfaces: tun0", "The daemon is there",
              "exit status 113", "Initialization Sequence Completed"})
            QVERIFY2(content.contains(QLatin1String(text)), text);
        for (const QString &secret : (server.key + server.ca).split(QLatin1Char('\n')))
            QVERIFY2(secret.isEmpty() || !content.contains(secret), qPrintable(secret));
        QVERIFY(!content.contains(server.host));

        QCOMPARE(vpnctl.run(QStringLiteral("report ") + folder), 2); // which is there now
    }

private:
    /// @return what "vpnctl status" observes.
    static QJsonObject status(VpnctlProcess &vpnctl)
    {
        vpnctl.run(QStringLiteral("status --json"));
        return objectIn(vpnctl.lines().value(0));
    }

    /// Kills the openvpn that the daemon has started.
    bool killOpenvpn() const
    {
        QProcess pgrep;
        pgrep.start(QStringLiteral("pgrep"),
                    {QStringLiteral("-P"), QString::number(m_daemon->pid())});
        pgrep.waitForFinished();
        const int pid = pgrep.readAll().trimmed().toInt();
        return pid > 0 && ::kill(pid, SIGKILL) == 0;
    }

    std::unique_ptr<DaemonProcess> m_daemon;
};

QTEST_GUILESS_MAIN(VpnctlTunnel)
#include "tst_vpnctl_tunnel.moc"
