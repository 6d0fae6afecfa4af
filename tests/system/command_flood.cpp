#include "measures.h"
#include "client.h"
#include "daemonprocess.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <algorithm>
#include <vector>

using standins::serverFor;

namespace {

constexpr int kCommands = 10'000;
constexpr int kManyEndpoints = 220;
constexpr int kMostNestedCommands = 64;
constexpr int kMostWaitingCommands = 10'000;

// What the stack of a Mac's main thread may grow to.
constexpr qint64 kWholeStackKiB = 8 * 1024;

const QString kConnectUdp = QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}");
const QString kSuccess = QStringLiteral("success");
const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");
const QString kTimeOut = QStringLiteral("warning.open_vpn_connection_time_out");
const QString kNoResponse = QStringLiteral("warning.open_vpn_server_does_not_respond");

VpnServerInformation silent()
{
    return serverFor(QStringLiteral("silent"));
}

VpnServerInformation successful()
{
    return serverFor(QStringLiteral("prints-at-once-success"));
}

} // namespace

/// More commands, and more clients, than anyone needs.
class CommandFlood : public QObject
{
    Q_OBJECT

private:
    DaemonProcess m_daemon;

    void openEndpoints(std::vector<QSharedPointer<Client>> &clients, int number)
    {
        for (int i = 0; i < number; ++i) {
            clients.push_back(QSharedPointer<Client>::create());
            QVERIFY(clients.back()->attachToNewEndpoint());
        }
    }

    /// Sends connects over both transports and disconnects, in turn; nobody looks at the event
    /// loop meanwhile, so they are one stream of bytes.
    static void sendMixedCommands(Client &client, int number, int first = 0)
    {
        for (int i = first; i < first + number; ++i) {
            if (i % 3 == 2)
                client.disconnectTunnel();
            else if (i % 3 == 1)
                client.connectTcp(silent());
            else
                client.connectUdp(silent());
        }
    }

    /// Floods with commands of which the last is a connect that succeeds, or a disconnect.
    void floodWithCommands(bool connectLast)
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        Client other;
        QVERIFY(other.attachToNewEndpoint());
        const qint64 stackBefore = measures::stackKiB(m_daemon.pid());
        QVERIFY(stackBefore > 0);
        const qint64 memoryBefore = m_daemon.residentKiB();
        QVERIFY(memoryBefore > 0);
        QElapsedTimer timer;
        timer.start();

        client.connectUdp(silent());
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        sendMixedCommands(client, kCommands - 2, 1);
        if (connectLast)
            client.connectUdp(successful());
        else
            client.disconnectTunnel();

        int heartbeats = 0;
        qint64 slowest = 0;
        while (client.answers().size() < kCommands && timer.elapsed() < 110'000) {
            QElapsedTimer beat;
            beat.start();
            other.heartbeat();
            ++heartbeats;
            QTRY_COMPARE_WITH_TIMEOUT(m_daemon.count(QStringLiteral("Replica state is  true")),
                                      heartbeats, 10'000);
            slowest = std::max(slowest, beat.elapsed());
            QTest::qWait(200);
        }
        QCOMPARE(client.answers().size(), kCommands);
        qInfo("%d commands: %lld ms, %d starts of openvpn, slowest heartbeat %lld ms, stack +%lld "
              "KiB, memory +%lld KiB",
              kCommands, timer.elapsed(), standins::openvpnStarts().size(), slowest,
              measures::stackKiB(m_daemon.pid()) - stackBefore,
              m_daemon.residentKiB() - memoryBefore);

        for (int i = 0; i < kCommands - 1; ++i) {
            const bool isConnect = i % 3 != 2;
            QCOMPARE(client.outcome(i), isConnect ? kAttemptFailed : kSuccess);
            QVERIFY(client.answers().at(i).message.contains(
                isConnect ? QStringLiteral("\"cmd\":\"connect\"")
                          : QStringLiteral("\"cmd\":\"disconnect\"")));
        }
        QCOMPARE(client.outcome(kCommands - 1), kSuccess);
        QTRY_COMPARE(standins::runningOpenvpns(), connectLast ? 1 : 0);
        // The commands arrive while few attempts get as far as openvpn.
        const int starts = standins::openvpnStarts().size();
        QVERIFY2(starts < kCommands / 100, qPrintable(QString::number(starts)));
        QVERIFY2(slowest < 2'000, qPrintable(QString::number(slowest)));
        QVERIFY(measures::stackKiB(m_daemon.pid()) - stackBefore < 512);
        if (measures::kResidentMemoryCounts)
            QVERIFY(m_daemon.residentKiB() - memoryBefore < 8 * 1024);
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(measures::allowDescriptors(8'192)); }

    void init() { QVERIFY(m_daemon.start()); }

    void cleanup() { QVERIFY(m_daemon.isRunning()); }

    void tenThousandCommandsAreAnsweredAndTheLastConnects() { floodWithCommands(true); }

    void tenThousandCommandsAreAnsweredAndTheLastDisconnects() { floodWithCommands(false); }

    void textsThatAreNoCommandOvertakeNothing()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("late-success")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        for (int i = 0; i < 1'000; ++i)
            client.send(QStringLiteral("{\"type\":\"connect\",\"cmd\":\"%1\"}").arg(i));
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 1, 20'000);
        QCOMPARE(client.outcome(), kSuccess);
        QCOMPARE(m_daemon.linesWith(QStringLiteral("Connect cmd")).size(), 1'001);
        QCOMPARE(standins::openvpnStarts().size(), 1);
    }

    void heartbeatsAreServedWhileCommandsPourIn()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("slow-to-stop")));
        QTRY_COMPARE(client.outcome(), kSuccess);
        client.disconnectTunnel(); // takes three seconds
        sendMixedCommands(client, 300);
        client.heartbeat();
        QTRY_COMPARE_WITH_TIMEOUT(m_daemon.count(QStringLiteral("Replica state is  true")), 1,
                                  2'000);
        QCOMPARE(client.answers().size(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), 302, 30'000);
    }

    /// While the tunnel takes its fifteen seconds to stop, nothing of this can be executed.
    void commandsThatCannotRunYetTakeLittleMemory()
    {
        constexpr int number = 20'000;
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("ignores-term")));
        QTRY_COMPARE(client.outcome(), kSuccess);
        const qint64 memoryBefore = m_daemon.residentKiB();
        QVERIFY(memoryBefore > 0);
        client.disconnectTunnel();
        // Whoever is answered at once must read, as for all other answers.
        for (int sent = 100; sent <= number; sent += 100) {
            sendMixedCommands(client, 100);
            QTRY_VERIFY(client.answers().size() >= sent - kMostWaitingCommands);
        }
        client.disconnectTunnel();
        QTRY_COMPARE_WITH_TIMEOUT(client.answers().size(), number + 3, 40'000);
        QTRY_COMPARE(standins::runningOpenvpns(), 0);
        qInfo("%d commands: memory +%lld KiB", number, m_daemon.residentKiB() - memoryBefore);
        if (measures::kResidentMemoryCounts)
            QVERIFY(m_daemon.residentKiB() - memoryBefore < 8 * 1024);
    }

    void answerToAClientThatHasLeftHarmsNobody()
    {
        Client steady;
        QVERIFY(steady.attachToNewEndpoint());
        {
            Client passing;
            QVERIFY(passing.attach(steady.endpoint()));
            passing.connectUdp(successful());
            QTRY_COMPARE(standins::runningOpenvpns(), 1);
        }
        QTRY_COMPARE(steady.answers().size(), 1);
        steady.disconnectTunnel();
        QTRY_COMPARE(steady.answers().size(), 2);
    }

    void clientThatReadsNoAnswersHarmsOnlyItself()
    {
        Client deaf;
        QVERIFY(deaf.attachToNewEndpoint());
        Client witness; // of the same manager's answers
        QVERIFY(witness.attach(deaf.endpoint()));
        deaf.endpointSocket().setReadBufferSize(1);
        for (int i = 0; i < 2 * kCommands && m_daemon.isRunning(); i += 100) {
            for (int j = 0; j < 100; ++j)
                witness.disconnectTunnel();
            QTRY_COMPARE_WITH_TIMEOUT(witness.answers().size(), i + 100, 10'000);
        }
        QTRY_COMPARE(m_daemon.count(QStringLiteral(
                         "Connection closed: \"the client does not read its answers\"")),
                     1);
        witness.disconnectTunnel();
        QTRY_COMPARE(witness.answers().size(), 2 * kCommands + 1);
    }

    void fiveHundredClientsAtOnceAreAllServed()
    {
        constexpr int number = 500;
        std::vector<QSharedPointer<Client>> clients;
        openEndpoints(clients, number);
        QVERIFY(!QTest::currentTestFailed());
        for (const auto &client : clients) {
            client->heartbeat();
            client->disconnectTunnel();
        }
        for (const auto &client : clients) {
            QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), 1, 30'000);
            QCOMPARE(client->outcome(), kSuccess);
        }
        QTRY_COMPARE(m_daemon.count(QStringLiteral("Replica state is  true")), number);
        qInfo("%d clients: %lld KiB, %d descriptors", number, m_daemon.residentKiB(),
              m_daemon.descriptors());
        clients.back()->connectUdp(successful());
        QTRY_COMPARE(clients.back()->answers().size(), 2);
        QCOMPARE(clients.back()->outcome(1), kSuccess);
    }

    void connectsOnManyEndpointsNestOnlySoDeep()
    {
        std::vector<QSharedPointer<Client>> clients;
        openEndpoints(clients, kManyEndpoints);
        QVERIFY(!QTest::currentTestFailed());
        const qint64 stackBefore = measures::stackKiB(m_daemon.pid());
        QVERIFY(stackBefore > 0);
        QElapsedTimer timer;
        timer.start();
        for (const auto &client : clients)
            client->connectUdp(silent());
        QTRY_VERIFY(standins::runningOpenvpns() >= kMostNestedCommands);
        QTest::qWait(1'000); // in which more would begin
        QCOMPARE(standins::runningOpenvpns(), kMostNestedCommands);
        for (const auto &client : clients)
            QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), 1, 100'000);
        // Which of its limits an attempt finds passed depends on those that it waited for.
        const auto givenUp = [&clients](const QString &key) {
            return int(std::count_if(clients.begin(), clients.end(), [&key](const auto &client) {
                return client->outcome() == key;
            }));
        };
        QCOMPARE(givenUp(kNoResponse) + givenUp(kTimeOut), kManyEndpoints);
        const qint64 stack = measures::stackKiB(m_daemon.pid()) - stackBefore;
        qInfo("%d connects: all answered after %lld ms, stack +%lld KiB", kManyEndpoints,
              timer.elapsed(), stack);
        QCOMPARE(standins::openvpnStarts().size(), kManyEndpoints);
        QVERIFY(stack < kWholeStackKiB / 8);
        // An attempt without any output leaves its process, which the next command stops.
        QCOMPARE(standins::runningOpenvpns(), givenUp(kNoResponse));
        for (const auto &client : clients) {
            client->disconnectTunnel();
            QTRY_COMPARE(client->answers().size(), 2);
        }
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void longRecordsAreHeldForFewClients_data()
    {
        QTest::addColumn<bool>("isCommand");
        QTest::addColumn<qint64>("mostGrowthKiB");
        QTest::newRow("with texts that are no command") << false << qint64(20 * 1024);
        // What the attempts that run keep, and records of waiting ones.
        QTest::newRow("with connects") << true << qint64(256 * 1024);
    }

    void longRecordsAreHeldForFewClients()
    {
        QFETCH(bool, isCommand);
        QFETCH(qint64, mostGrowthKiB);
        std::vector<QSharedPointer<Client>> clients;
        openEndpoints(clients, kManyEndpoints);
        QVERIFY(!QTest::currentTestFailed());
        const qint64 memoryBefore = m_daemon.residentKiB();
        QVERIFY(memoryBefore > 0);
        VpnServerInformation server = silent();
        server.ca = QStringLiteral("-----BEGIN CERTIFICATE-----\n")
            + QString(500'000, QLatin1Char('A')) + QStringLiteral("\n-----END CERTIFICATE-----\n");
        // One after the other, since unfinished frames are limited already.
        int sent = 0;
        for (const auto &client : clients) {
            client->send(isCommand ? kConnectUdp : QStringLiteral("{\"type\":\"nothing\"}"),
                         server);
            ++sent;
            QVERIFY(QTest::qWaitFor([&] {
                return m_daemon.linesWith(QStringLiteral("Command status")).size() == sent;
            }));
        }
        QTest::qWait(1'000);
        const qint64 growth = m_daemon.residentKiB() - memoryBefore;
        qInfo("%d records of 1 MiB: memory +%lld KiB", kManyEndpoints, growth);
        if (measures::kResidentMemoryCounts)
            QVERIFY2(growth < mostGrowthKiB, qPrintable(QString::number(growth)));
        QCOMPARE(m_daemon.linesWith(QStringLiteral("Connection closed")), QStringList());
        // Who would have to wait with more than there is room for is told at once.
        const auto refused = std::count_if(clients.begin(), clients.end(), [](const auto &client) {
            return !client->answers().isEmpty() && client->outcome() == kAttemptFailed;
        });
        qInfo("%d were refused", int(refused));
        QCOMPARE(refused > 0, isCommand);
    }

    void commandsOvertakenOnManyEndpointsNestOnlySoDeep()
    {
        std::vector<QSharedPointer<Client>> clients;
        openEndpoints(clients, kManyEndpoints);
        QVERIFY(!QTest::currentTestFailed());
        const qint64 stackBefore = measures::stackKiB(m_daemon.pid());
        QVERIFY(stackBefore > 0);
        for (const auto &client : clients)
            client->connectUdp(serverFor(QStringLiteral("ignores-term-silent")));
        QTRY_VERIFY(standins::runningOpenvpns() >= kMostNestedCommands);
        for (const auto &client : clients)
            client->disconnectTunnel();
        // Each disconnect waits its fifteen seconds inside an attempt, or finds none.
        for (const auto &client : clients) {
            QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), 2, 50'000);
            QCOMPARE(client->outcome(0), kAttemptFailed);
            QCOMPARE(client->outcome(1), kSuccess);
        }
        const qint64 stack = measures::stackKiB(m_daemon.pid()) - stackBefore;
        qInfo("stack +%lld KiB", stack);
        QVERIFY(stack < kWholeStackKiB / 8);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void heartbeatTimeOutsOfManyClientsNestSafely()
    {
        std::vector<QSharedPointer<Client>> clients;
        openEndpoints(clients, kManyEndpoints);
        QVERIFY(!QTest::currentTestFailed());
        for (const auto &client : clients)
            client->connectUdp(serverFor(QStringLiteral("slow-to-stop")));
        for (const auto &client : clients) {
            QTRY_COMPARE_WITH_TIMEOUT(client->answers().size(), 1, 60'000);
            QCOMPARE(client->outcome(), kSuccess);
        }
        const qint64 stackBefore = measures::stackKiB(m_daemon.pid());
        QVERIFY(stackBefore > 0);
        for (const auto &client : clients)
            client->heartbeat();
        QTRY_COMPARE(m_daemon.count(QStringLiteral("Replica state is  true")), kManyEndpoints);
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 0, 70'000);
        QTRY_COMPARE(m_daemon.count(QStringLiteral("Client was disconnected")), kManyEndpoints);
        const qint64 stack = measures::stackKiB(m_daemon.pid()) - stackBefore;
        qInfo("%d time-outs: stack +%lld KiB", kManyEndpoints, stack);
        QVERIFY(stack < kWholeStackKiB / 4);
    }
};

QTEST_GUILESS_MAIN(CommandFlood)
#include "command_flood.moc"
