#include "client.h"
#include "daemonprocess.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

using standins::serverFor;

namespace {

const QString kConnectAnswer =
    "{\"arg\":\"connect\",\"cmd\":\"connect\",\"status\":true,\"type\":\"openvpn\"}";
const QString kDisconnectAnswer =
    "{\"arg\":\"disconnect\",\"cmd\":\"disconnect\",\"status\":true,\"type\":\"openvpn\"}";
const QString kSuccess = "success";

const QString kWiFi = "Wi-Fi";
const QStringList kUsersDns{"192.0.2.53"};
const QStringList kUsersDomains{"home.test"};

// The configuration files go here, so that a test sees them all.
const QString kFolder = "/tmp/keys";

} // namespace

/// Whole conversations between clients and the daemon, with the stand-in for openvpn. What becomes
/// of an attempt in every case is shown by the unit tests of OvpnConnection, and of a text that is
/// no command by those of ServiceInterfaceManager.
class TestCommands : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<DaemonProcess> m_daemon;
    QScopedPointer<Client> m_client;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        standins::setDns(kWiFi, kUsersDns, kUsersDomains);
        QVERIFY(QDir().mkpath(kFolder));
        m_daemon.reset(new DaemonProcess);
        m_daemon->setWrapper({"env", "TMPDIR=" + kFolder});
        QVERIFY(m_daemon->start());
        m_client.reset(new Client);
        QVERIFY(m_client->attachToNewEndpoint());
    }

    void cleanup()
    {
        QVERIFY(m_daemon->isRunning());
        m_client.reset();
        m_daemon.reset();
    }

    void tunnelComesUpAndGoesDown()
    {
        m_client->heartbeat(false);
        m_client->connectTcp(serverFor("connects"));
        QTRY_COMPARE(m_client->answers().size(), 1);
        QCOMPARE(m_client->answers().first().message, kConnectAnswer);
        QCOMPARE(m_client->answers().first().result.code, 1);
        QCOMPARE(m_client->outcome(), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(standins::dnsServers(kWiFi), QStringList{"10.8.0.1"});
        QCOMPARE(standins::configurationModeOf(standins::openvpnStarts().first()),
                 QByteArray("600"));
        QVERIFY(QDir(kFolder).isEmpty(QDir::Files | QDir::Hidden | QDir::System));

        m_client->disconnectTunnel();
        QTRY_COMPARE(m_client->answers().size(), 2);
        QCOMPARE(m_client->answers().at(1).message, kDisconnectAnswer);
        QCOMPARE(m_client->outcome(1), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
        QCOMPARE(standins::searchDomains(kWiFi), kUsersDomains);
        QCOMPARE(standins::backupFiles(), QStringList());

        for (const char *line :
             {"LocalServer new connection", "Source Node Started", "IpcServer new connection",
              "Replica state is  false", "Command status  \"connect\"", "Connect cmd \"ovpnTcp\"",
              "Command status  \"openvpn\"", "result params  \"disconnect\"",
              "Resources folder doesn't exist",
              "----------------- New Connection -----------------\r",
              "openvpn state:  QProcess::Running", "readAll:  \"\"", "result output  true"}) {
            QTRY_VERIFY2(m_daemon->count(QString::fromUtf8(line)) >= 1, line);
        }
        for (QString answer : {kConnectAnswer, kDisconnectAnswer}) {
            answer.replace('"', "\\\"");
            QCOMPARE(m_daemon->count(QString("Send command service \"%1\"").arg(answer)), 1);
        }
        const QString command =
            "\"/Applications/Talvex VPN.app/Contents/MacOS/openvpn\" \"\\\"/Applications/Talvex "
            "VPN.app/Contents/MacOS/openvpn\\\" --config \\\"/tmp/keys/";
        QCOMPARE(m_daemon->linesWith(command).size(), 1);
    }

    /// 200 MB before the success line, as rejected packets may bring them about.
    void attemptThatPrintsVeryMuchCostsLittleMemory()
    {
        const qint64 before = measures::statusOf(m_daemon->pid(), "VmHWM");
        m_client->connectUdp(serverFor("flood"));
        QTRY_COMPARE_WITH_TIMEOUT(m_client->outcome(), kSuccess, 20'000);
        const qint64 peak = measures::statusOf(m_daemon->pid(), "VmHWM");
        QVERIFY(measures::growsByLess(before, peak, 64 * 1024));
    }

    void fullDiskIsReportedAndPasses()
    {
        VpnServerInformation server = serverFor("connects");
        server.ca += QString(6'000, 'A'); // more than fits, in one write
        QCOMPARE(QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=4k", "tmpfs", kFolder}), 0);
        m_client->connectUdp(server);
        QTRY_COMPARE(m_client->outcome(), "label.can_not_create_config_for_open_vpn");
        QCOMPARE(standins::openvpnStarts().size(), 0);
        QCOMPARE(QProcess::execute("umount", {kFolder}), 0);
        m_client->connectUdp(server);
        QTRY_COMPARE(m_client->outcome(1), kSuccess);
    }
};

QTEST_GUILESS_MAIN(TestCommands)
#include "tst_commands.moc"
