#include "client.h"
#include "daemonprocess.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>

using standins::serverFor;

namespace {

const QString kConnectAnswer = QStringLiteral(
    "{\"arg\":\"connect\",\"cmd\":\"connect\",\"status\":true,\"type\":\"openvpn\"}");
const QString kDisconnectAnswer = QStringLiteral(
    "{\"arg\":\"disconnect\",\"cmd\":\"disconnect\",\"status\":true,\"type\":\"openvpn\"}");
const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");
const QString kSuccess = QStringLiteral("success");

const QString kWiFi = QStringLiteral("Wi-Fi");
const QStringList kUsersDns{QStringLiteral("192.0.2.53")};
const QStringList kUsersDomains{QStringLiteral("home.test")};

// The configuration files go here, so that a test sees them all.
const QString kFolder = QStringLiteral("/tmp/keys");

QStringList configurationFiles()
{
    return QDir(kFolder).entryList(QDir::Files | QDir::Hidden | QDir::System);
}

} // namespace

/// Whole conversations between clients and the daemon, with the stand-in for openvpn. What becomes
/// of an attempt in every case is shown by the unit tests of OvpnConnection.
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
        m_daemon->setEnvironment(QStringLiteral("TMPDIR"), kFolder);
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
        m_client->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(m_client->answers().size(), 1);
        QCOMPARE(m_client->answers().first().message, kConnectAnswer);
        QCOMPARE(m_client->answers().first().result.code, 1);
        QCOMPARE(m_client->outcome(), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(standins::dnsServers(kWiFi), QStringList{QStringLiteral("10.8.0.1")});

        m_client->disconnectTunnel();
        QTRY_COMPARE(m_client->answers().size(), 2);
        QCOMPARE(m_client->answers().at(1).message, kDisconnectAnswer);
        QCOMPARE(m_client->outcome(1), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers(kWiFi), kUsersDns);
        QCOMPARE(standins::searchDomains(kWiFi), kUsersDomains);
        QCOMPARE(standins::backupFiles(), QStringList());
    }

    void tunnelThatDiesGivesTheSettingsBack()
    {
        m_client->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(m_client->outcome(), kSuccess);
        ::kill(static_cast<pid_t>(standins::openvpnStarts().last().pid), SIGKILL);
        QTRY_COMPARE(standins::runningOpenvpns(), 0);
        QTRY_COMPARE(standins::dnsServers(kWiFi), kUsersDns);
        QCOMPARE(m_client->answers().size(), 1); // nobody is told
        m_client->disconnectTunnel();
        QTRY_COMPARE(m_client->outcome(1), kSuccess);
    }

    /// 200 MB before the success line, as rejected packets may bring them about.
    void attemptThatPrintsVeryMuchCostsLittleMemory()
    {
        const qint64 before = measures::statusOf(m_daemon->pid(), "VmHWM");
        m_client->connectUdp(serverFor(QStringLiteral("flood")));
        QTRY_COMPARE_WITH_TIMEOUT(m_client->outcome(), kSuccess, 20'000);
        const qint64 growth = measures::statusOf(m_daemon->pid(), "VmHWM") - before;
        qInfo("grown by %lld KiB at its peak", growth);
        if (measures::kResidentMemoryCounts)
            QVERIFY(before > 0 && growth < 64 * 1024);
    }

    void conversationIsLogged()
    {
        m_client->heartbeat(true);
        m_client->heartbeat(false);
        m_client->connectTcp(serverFor(QStringLiteral("prints-at-once-success")));
        QTRY_COMPARE(m_client->answers().size(), 1);
        m_client->disconnectTunnel();
        QTRY_COMPARE(m_client->answers().size(), 2);
        for (const char *line :
             {"LocalServer new connection", "Source Node Started", "IpcServer new connection",
              "Replica state is  true", "Replica state is  false", "Command status  \"connect\"",
              "Connect cmd \"ovpnTcp\"", "Command status  \"openvpn\"",
              "result params  \"disconnect\"", "Resources folder doesn't exist",
              "----------------- New Connection -----------------\r",
              "openvpn state:  QProcess::Running",
              "outputString:  \"Initialization Sequence Completed\\n\"", "readAll:  \"\"",
              "result output  true"}) {
            QTRY_VERIFY2(m_daemon->count(QString::fromUtf8(line)) >= 1, line);
        }
        for (QString answer : {kConnectAnswer, kDisconnectAnswer}) {
            answer.replace(QLatin1Char('"'), QStringLiteral("\\\""));
            QCOMPARE(m_daemon->count(QStringLiteral("Send command service \"%1\"").arg(answer)), 1);
        }
        QCOMPARE(m_daemon
                     ->linesWith(QStringLiteral(
                         "\"/Applications/Talvex VPN.app/Contents/MacOS/openvpn\" "
                         "\"\\\"/Applications/Talvex VPN.app/Contents/MacOS/openvpn\\\" --config "
                         "\\\"/tmp/keys/"))
                     .size(),
                 1);
    }

    void textThatIsNoCommandGetsNoAnswer()
    {
        m_client->send(QStringLiteral("{\"type\":\"openvpn\",\"cmd\":\"connect\"}"));
        m_client->send(QStringLiteral("no JSON"));
        m_client->disconnectTunnel();
        QTRY_COMPARE(m_client->answers().size(), 1);
        QCOMPARE(m_client->answers().first().message, kDisconnectAnswer);
        QTRY_COMPARE(m_daemon->linesWith(QStringLiteral("Command status  ")).size(), 3);
    }

    void heartbeatsAndOtherClientsAreServedDuringAConnect()
    {
        m_client->connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        m_client->heartbeat();
        QTRY_COMPARE(m_daemon->count(QStringLiteral("Replica state is  true")), 1);
        Client other;
        QVERIFY(other.attachToNewEndpoint());
        other.connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
        QTRY_COMPARE(other.outcome(), kSuccess);
        QCOMPARE(m_client->answers().size(), 0);
    }

    void disconnectEndsAConnectAtOnce()
    {
        m_client->connectUdp(serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(configurationFiles().size(), 1);
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        m_client->disconnectTunnel();
        QTRY_COMPARE(m_client->answers().size(), 2);
        QCOMPARE(m_client->answers().at(0).message, kConnectAnswer);
        QCOMPARE(m_client->outcome(0), kAttemptFailed);
        QCOMPARE(m_client->answers().at(1).message, kDisconnectAnswer);
        QCOMPARE(m_client->outcome(1), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(configurationFiles(), QStringList());
    }

    void configurationFileIsPrivateAndGoneAfterwards_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<int>("starts");
        QTest::newRow("tunnel") << QStringLiteral("connects") << kSuccess << 1;
        QTest::newRow("error") << QStringLiteral("error") << kAttemptFailed << 1;
        QTest::newRow("third attempt")
            << QStringLiteral("exits-twice-then-connects") << kSuccess << 3;
    }

    void configurationFileIsPrivateAndGoneAfterwards()
    {
        QFETCH(QString, scenario);
        QFETCH(QString, outcome);
        QFETCH(int, starts);
        m_client->connectUdp(serverFor(scenario));
        QTRY_COMPARE(m_client->answers().size(), 1);
        QCOMPARE(m_client->outcome(), outcome);
        QCOMPARE(configurationFiles(), QStringList());
        QCOMPARE(standins::openvpnStarts().size(), starts);
        for (const auto &start : standins::openvpnStarts()) {
            QCOMPARE(standins::configurationModeOf(start), QByteArray("600"));
            QVERIFY(start.arguments.last().startsWith(kFolder));
        }
    }

    void missingOpenvpnIsAnswered()
    {
        QVERIFY(QFile::remove(DaemonProcess::programFolder() + QStringLiteral("/openvpn")));
        m_client->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(m_client->answers().size(), 1);
        QCOMPARE(m_client->outcome(), QStringLiteral("warning.open_vpn_running_fails_check_apps"));
        QCOMPARE(configurationFiles(), QStringList());
    }

    void fullDiskIsReportedAndPasses()
    {
        // The mount takes no space of its own once the daemon has gone, but stays until then.
        QCOMPARE(
            QProcess::execute(QStringLiteral("mount"),
                              {QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                               QStringLiteral("size=8k"), QStringLiteral("tmpfs"), kFolder}),
            0);
        QFile filler(kFolder + QStringLiteral("/filler"));
        QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        while (filler.write(QByteArray(4096, 'x')) == 4096) {
        }
        m_client->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(m_client->answers().size(), 1);
        QCOMPARE(m_client->outcome(), QStringLiteral("label.can_not_create_config_for_open_vpn"));
        QCOMPARE(standins::openvpnStarts().size(), 0);
        QVERIFY(filler.remove());
        m_client->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(m_client->outcome(1), kSuccess);
        QCOMPARE(QProcess::execute(QStringLiteral("umount"), {kFolder}), 0);
    }
};

QTEST_GUILESS_MAIN(TestCommands)
#include "tst_commands.moc"
