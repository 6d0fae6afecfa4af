#include "client.h"
#include "daemonprocess.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <csignal>
#include <memory>
#include <vector>

using standins::serverFor;

namespace {

/// More than may wait inside each other's event loops.
constexpr int kManyClients = 80;

const QString kHeartbeat = QStringLiteral("Replica state is  true");
const QString kSuccess = QStringLiteral("success");
const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");

VpnServerInformation silent()
{
    return serverFor(QStringLiteral("silent"));
}

/// Sends connects over both transports and disconnects, in turn; nobody looks at the event loop
/// meanwhile, so they are one stream of bytes.
void sendMixedCommands(Client &client, int number)
{
    for (int i = 0; i < number; ++i) {
        if (i % 3 == 0)
            client.connectUdp(silent());
        else if (i % 3 == 1)
            client.connectTcp(silent());
        else
            client.disconnectTunnel();
    }
}

} // namespace

/// More commands, and more clients, than anyone needs.
class TestCommandFlood : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<DaemonProcess> m_daemon;
    std::vector<std::unique_ptr<Client>> m_clients;
    qint64 m_memoryBefore = 0;
    qint64 m_stackBefore = 0;

    Client &client() { return *m_clients.front(); }

    void openEndpoints(int number)
    {
        for (int i = 0; i < number; ++i) {
            m_clients.push_back(std::make_unique<Client>());
            QVERIFY(m_clients.back()->attachToNewEndpoint());
        }
        m_memoryBefore = m_daemon->residentKiB();
        m_stackBefore = measures::stackKiB(m_daemon->pid());
        QVERIFY(m_memoryBefore > 0 && m_stackBefore > 0);
    }

    void growsByLess(qint64 memoryKiB, qint64 stackKiB)
    {
        const qint64 memory = m_daemon->residentKiB() - m_memoryBefore;
        const qint64 stack = measures::stackKiB(m_daemon->pid()) - m_stackBefore;
        qInfo("memory +%lld KiB, stack +%lld KiB", memory, stack);
        QVERIFY(stack < stackKiB);
        if (measures::kResidentMemoryCounts)
            QTRY_VERIFY(m_daemon->residentKiB() - m_memoryBefore < memoryKiB);
    }

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        QVERIFY(measures::allowDescriptors(8'192));
        m_daemon.reset(new DaemonProcess);
        QVERIFY(m_daemon->start());
        openEndpoints(1);
    }

    void cleanup()
    {
        QVERIFY(m_daemon->isRunning());
        m_clients.clear();
        m_daemon.reset();
    }

    /// While a tunnel does not stop, none of the commands can run.
    void tenThousandCommandsWaitAndTheLastDecides()
    {
        openEndpoints(1);
        QVERIFY(!QTest::currentTestFailed());
        client().connectUdp(serverFor(QStringLiteral("ignores-term")));
        QTRY_COMPARE(client().outcome(), kSuccess);
        client().disconnectTunnel();
        sendMixedCommands(client(), 10'199);
        client().connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
        client().heartbeat();
        QTRY_COMPARE_WITH_TIMEOUT(m_daemon->count(kHeartbeat), 1, 20'000);
        // More do not wait; the oldest beyond are answered at once.
        QTRY_COMPARE(client().answers().size(), 201);
        growsByLess(8 * 1024, 512);

        ::kill(static_cast<pid_t>(standins::openvpnStarts().first().pid), SIGKILL);
        Client &other = *m_clients.back();
        qint64 slowest = 0;
        for (int beat = 2; client().answers().size() < 10'202 && beat < 2'000; ++beat) {
            QElapsedTimer timer;
            timer.start();
            other.heartbeat();
            QTRY_COMPARE(m_daemon->count(kHeartbeat), beat);
            slowest = std::max(slowest, timer.elapsed());
            QTest::qWait(50);
        }
        QVERIFY2(slowest < 2'000, qPrintable(QString::number(slowest)));
        QCOMPARE(client().answers().size(), 10'202);
        QCOMPARE(client().outcome(201), kSuccess); // of the disconnect that they waited for
        for (int i = 0; i < 10'199; ++i) {
            const int answer = i < 200 ? i + 1 : i + 2;
            QCOMPARE(client().outcome(answer), i % 3 == 2 ? kSuccess : kAttemptFailed);
            QCOMPARE(client().answers().at(answer).message.contains(QLatin1String("disconnect")),
                     i % 3 == 2);
        }
        QCOMPARE(client().outcome(10'201), kSuccess);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(standins::openvpnStarts().size(), 2);
    }

    void answerToAClientThatHasLeftHarmsNobody()
    {
        {
            Client passing;
            QVERIFY(passing.attach(client().endpoint()));
            passing.connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
            QTRY_COMPARE(standins::runningOpenvpns(), 1);
        }
        QTRY_COMPARE(client().answers().size(), 1);
        client().disconnectTunnel();
        QTRY_COMPARE(client().answers().size(), 2);
    }

    void clientThatReadsNoAnswersHarmsOnlyItself()
    {
        const QString closed =
            QStringLiteral("Connection closed: \"the client does not read its answers\"");
        Client witness; // of the same manager's answers
        QVERIFY(witness.attach(client().endpoint()));
        client().endpointSocket().setReadBufferSize(1);
        int sent = 0;
        for (; m_daemon->count(closed) == 0 && sent < 20'000; sent += 200) {
            for (int i = 0; i < 200; ++i)
                witness.disconnectTunnel();
            QTRY_COMPARE(witness.answers().size(), sent + 200);
        }
        QTRY_COMPARE(m_daemon->count(closed), 1);
        witness.disconnectTunnel();
        QTRY_COMPARE(witness.answers().size(), sent + 1);
    }

    void fiveHundredClientsAtOnceAreAllServed()
    {
        openEndpoints(499);
        QVERIFY(!QTest::currentTestFailed());
        for (const auto &each : m_clients) {
            each->heartbeat();
            each->disconnectTunnel();
        }
        for (const auto &each : m_clients)
            QTRY_COMPARE_WITH_TIMEOUT(each->outcome(), kSuccess, 20'000);
        QTRY_COMPARE(m_daemon->count(kHeartbeat), 500);
    }

    void onlyEightConnectsNest()
    {
        openEndpoints(kManyClients - 1);
        QVERIFY(!QTest::currentTestFailed());
        for (const auto &each : m_clients)
            each->connectUdp(silent());
        QTRY_COMPARE(m_daemon->count(QStringLiteral("Connect cmd \"ovpnUdp\"")), kManyClients);
        QTRY_COMPARE(standins::runningOpenvpns(), 8);
        // The others wait for their turn.
        Client &late = *m_clients.back();
        late.heartbeat();
        QTRY_COMPARE(m_daemon->count(kHeartbeat), 1);
        QCOMPARE(standins::openvpnStarts().size(), 8);
        for (const auto &each : m_clients)
            each->disconnectTunnel();
        for (const auto &each : m_clients) {
            QTRY_COMPARE_WITH_TIMEOUT(each->answers().size(), 2, 20'000);
            QCOMPARE(each->outcome(0), kAttemptFailed);
            QCOMPARE(each->outcome(1), kSuccess);
        }
        QCOMPARE(standins::runningOpenvpns(), 0);
        growsByLess(16 * 1024, 1'024);
    }

    void longRecordsAreHeldOnce_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<qint64>("memoryKiB");
        // What a call carried is let go of when it is done; all records together have 32 MiB.
        QTest::newRow("with texts that are no command")
            << QStringLiteral("{\"type\":\"nothing\"}") << qint64(8 * 1024);
        // An attempt that runs holds the record, the configuration text and what it was sent.
        QTest::newRow("with connects")
            << QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}") << qint64(96 * 1024);
    }

    void longRecordsAreHeldOnce()
    {
        QFETCH(QString, command);
        QFETCH(qint64, memoryKiB);
        openEndpoints(kManyClients - 1);
        QVERIFY(!QTest::currentTestFailed());
        VpnServerInformation server = silent();
        server.ca = QStringLiteral("-----BEGIN CERTIFICATE-----\n")
            + QString(100'000, QLatin1Char('A')) + QStringLiteral("\n-----END CERTIFICATE-----\n");
        for (const auto &each : m_clients) {
            each->send(command, server);
            each->send(command, server);
        }
        QTRY_COMPARE(m_daemon->linesWith(QStringLiteral("Command status")).size(),
                     2 * kManyClients);
        growsByLess(memoryKiB, 1'024);
        QCOMPARE(m_daemon->linesWith(QStringLiteral("Connection closed")), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestCommandFlood)
#include "tst_command_flood.moc"
