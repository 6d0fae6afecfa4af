#include "client.h"
#include "daemonprocess.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>

using standins::serverFor;

namespace {

const QString kHeartbeat = "Replica state is  true";
const QString kSuccess = "success";
const QString kAttemptFailed = "warning.can_not_open_vpn_check_is_admin_granted";

} // namespace

/// More commands, and more clients, than anyone needs.
class TestCommandFlood : public QObject
{
    Q_OBJECT

private:
    void openEndpoints(int number)
    {
        m_clients = attachedClients(number);
        m_memoryBefore = m_daemon->residentKiB();
        m_stackBefore = measures::statusOf(m_daemon->pid(), "VmStk");
        QVERIFY(m_stackBefore > 0);
    }

    void growsByLess(qint64 memoryKiB, qint64 stackKiB)
    {
        QVERIFY(measures::statusOf(m_daemon->pid(), "VmStk") - m_stackBefore < stackKiB);
        QTRY_VERIFY(measures::growsByLess(m_memoryBefore, m_daemon->residentKiB(), memoryKiB));
    }

    std::unique_ptr<DaemonProcess> m_daemon;
    Clients m_clients;
    qint64 m_memoryBefore = 0;
    qint64 m_stackBefore = 0;

private Q_SLOTS:
    void initTestCase() { QVERIFY(measures::allowDescriptors(8'192)); }

    void init()
    {
        lab::resetPrivateRoot();
        m_daemon = std::make_unique<DaemonProcess>();
        QVERIFY(m_daemon->start());
    }

    void cleanup()
    {
        QVERIFY(m_daemon->isRunning());
        m_clients.clear();
    }

    /// While a tunnel does not stop, none of the commands can run.
    void tenThousandCommandsWaitAndTheLastDecides()
    {
        openEndpoints(2);
        Client &client = *m_clients.front();
        Client &other = *m_clients.back();
        client.connectUdp(serverFor("ignores-term"));
        QTRY_COMPARE(client.outcome(), kSuccess);
        client.disconnectTunnel();
        for (int i = 0; i < 10'199; ++i) {
            if (i % 3 == 2)
                client.disconnectTunnel();
            else
                client.connectTcp(serverFor("silent"));
        }
        client.connectUdp(serverFor("prints-at-once-success"));
        client.heartbeat();
        QTRY_COMPARE_WITH_TIMEOUT(m_daemon->count(kHeartbeat), 1, 20'000);
        // 10,000 wait at most. The oldest of those beyond are answered at once.
        QTRY_COMPARE(client.answers().size(), 201);
        growsByLess(8 * 1024, 512);

        ::kill(static_cast<pid_t>(standins::openvpnStarts().first().pid), SIGKILL);
        for (int beat = 2; client.answers().size() < 10'202 && beat < 2'000; ++beat) {
            QElapsedTimer timer;
            timer.start();
            other.heartbeat();
            QTRY_COMPARE(m_daemon->count(kHeartbeat), beat);
            QVERIFY2(timer.elapsed() < 2'000, qPrintable(QString::number(timer.elapsed())));
            QTest::qWait(500);
        }
        QCOMPARE(client.answers().size(), 10'202);
        QCOMPARE(client.outcome(201), kSuccess); // of the disconnect that they waited for
        for (int i = 0; i < 10'199; ++i) {
            const int answer = i < 200 ? i + 1 : i + 2;
            QCOMPARE(client.outcome(answer), i % 3 == 2 ? kSuccess : kAttemptFailed);
            QCOMPARE(client.answers().at(answer).message.contains("disconnect"), i % 3 == 2);
        }
        QCOMPARE(client.outcome(10'201), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(standins::openvpnStarts().size(), 2);
    }

    void fiveHundredClientsAtOnceAreAllServed()
    {
        openEndpoints(500);
        for (const auto &each : m_clients) {
            each->heartbeat();
            each->disconnectTunnel();
        }
        for (const auto &each : m_clients)
            QTRY_COMPARE_WITH_TIMEOUT(each->outcome(), kSuccess, 20'000);
        QTRY_COMPARE(m_daemon->count(kHeartbeat), 500);
    }

    void longRecordsAreHeldOnceAndOnlyEightConnectsNest_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<qint64>("memoryKiB");
        QTest::addColumn<int>("running");
        // The daemon drops the arguments of a call after it; all records together have 16 MiB.
        QTest::newRow("texts that are no command") << "nothing" << qint64(8 * 1024) << 0;
        // A running attempt holds the record, the configuration text and the command.
        QTest::newRow("connects") << "connect" << qint64(96 * 1024) << 8;
    }

    void longRecordsAreHeldOnceAndOnlyEightConnectsNest()
    {
        QFETCH(QString, type);
        QFETCH(qint64, memoryKiB);
        QFETCH(int, running);
        constexpr int kManyClients = 80; // more than may wait inside each other's event loops
        openEndpoints(kManyClients);
        VpnServerInformation server = serverFor("silent");
        server.ca = "-----BEGIN CERTIFICATE-----\n" + QString(100'000, 'A')
            + "\n-----END CERTIFICATE-----\n";
        for (const auto &each : m_clients)
            each->send(QString("{\"type\":\"%1\",\"cmd\":\"ovpnUdp\"}").arg(type), server);
        QTRY_COMPARE(m_daemon->linesWith("Command status").size(), kManyClients);
        QTRY_COMPARE(standins::runningOpenvpns(), running);
        m_clients.back()->heartbeat();
        QTRY_COMPARE(m_daemon->count(kHeartbeat), 1);
        growsByLess(memoryKiB, 1'024);
        QCOMPARE(standins::openvpnStarts().size(), running);
        QCOMPARE(m_daemon->linesWith("Connection closed"), QStringList());

        for (const auto &each : m_clients)
            each->disconnectTunnel();
        for (const auto &each : m_clients)
            QTRY_COMPARE_WITH_TIMEOUT(each->answers().size(), running == 0 ? 1 : 2, 20'000);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }
};

QTEST_GUILESS_MAIN(TestCommandFlood)
#include "tst_command_flood.moc"
