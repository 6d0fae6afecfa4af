#include "ipcurls.h"
#include "localserver.h"
#include "measures.h"
#include "rawconnections.h"
#include "client.h"
#include "daemonprocess.h"
#include "objectwatch.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <vector>

using standins::serverFor;

namespace {

constexpr int kConnections = 10'000;
constexpr qint64 kMostGrowthKiB = 4 * 1024;

} // namespace

/// Very many times the same, and nothing piles up.
class Soak : public QObject
{
    Q_OBJECT

private:
    static constexpr int kEndpoints = 20;
    /// On each endpoint. Sanitizers make each tunnel cost much more time than it waits, and
    /// resident memory is not looked at there.
    static constexpr int kCycles = measures::kResidentMemoryCounts ? 50 : 15;
    static constexpr int kWarmUp = 5; ///< of these

    /// Lets every client connect and disconnect @p cycles times, each at its own pace.
    static void cycle(const std::vector<QSharedPointer<Client>> &clients, int cycles)
    {
        std::vector<int> ends;
        for (const auto &client : clients) {
            ends.push_back(client->answers().size() + 2 * cycles);
            client->connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
        }
        std::vector<int> seen;
        for (const int end : ends)
            seen.push_back(end - 2 * cycles);
        QElapsedTimer timer;
        timer.start();
        bool allDone = false;
        while (!allDone) {
            QVERIFY2(!timer.hasExpired(100'000), qPrintable(QString::number(seen.front())));
            QTest::qWait(1);
            allDone = true;
            for (std::size_t i = 0; i < clients.size(); ++i) {
                Client &client = *clients[i];
                for (; seen[i] < client.answers().size(); ++seen[i]) {
                    QCOMPARE(client.outcome(seen[i]), QStringLiteral("success"));
                    if (seen[i] + 1 == ends[i])
                        continue;
                    if (seen[i] % 2 == 0)
                        client.disconnectTunnel();
                    else
                        client.connectUdp(serverFor(QStringLiteral("prints-at-once-success")));
                }
                allDone = allDone && seen[i] == ends[i];
            }
        }
    }

    static void growsByLittle(const DaemonProcess &daemon, qint64 before)
    {
        const qint64 growth = daemon.residentKiB() - before;
        qInfo("resident memory +%lld KiB, from %lld", growth, before);
        if (measures::kResidentMemoryCounts)
            QVERIFY(growth < kMostGrowthKiB);
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(measures::allowDescriptors(8'192)); }

    void thousandTunnelsLeaveNothing()
    {
        // What the restore script finds is not the matter here, and it runs a thousand times.
        QVERIFY(QFile::remove(QStringLiteral("/sbin/networksetup")));
        QVERIFY(QFile::link(QStringLiteral("/bin/true"), QStringLiteral("/sbin/networksetup")));
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        std::vector<QSharedPointer<Client>> clients;
        for (int i = 0; i < kEndpoints; ++i) {
            clients.push_back(QSharedPointer<Client>::create());
            QVERIFY(clients.back()->attachToNewEndpoint());
        }
        cycle(clients, kWarmUp);
        QVERIFY(!QTest::currentTestFailed());
        const int descriptors = daemon.descriptors();
        const qint64 memory = daemon.residentKiB();

        cycle(clients, kCycles - kWarmUp);
        QVERIFY(!QTest::currentTestFailed());
        QCOMPARE(standins::openvpnStarts().size(), kEndpoints * kCycles);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(daemon.descriptors(), descriptors);
        growsByLittle(daemon, memory);
    }

    void connectionsThatComeAndGoLeaveNothing()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client steady;
        QVERIFY(steady.attachToNewEndpoint());
        int descriptors = 0;
        qint64 memory = 0;
        for (int i = 0; i < kConnections; i += 100) {
            RawConnections passing;
            QVERIFY(passing.open(shared::getIpcServiceUrl(), 50));
            QVERIFY(passing.open(shared::getIpcProcessUrl(steady.endpoint()), 50));
            passing.closeAll();
            if (i == 1'000) {
                QTRY_COMPARE(daemon.count(QStringLiteral("IpcServer new connection")), 551);
                QTest::qWait(100);
                descriptors = daemon.descriptors();
                memory = daemon.residentKiB();
            }
        }
        QTRY_COMPARE(daemon.count(QStringLiteral("IpcServer new connection")),
                     kConnections / 2 + 1);
        QTRY_COMPARE(daemon.descriptors(), descriptors);
        growsByLittle(daemon, memory);
        steady.disconnectTunnel();
        QTRY_COMPARE(steady.answers().size(), 1);
    }

    void clientsThatComeAndGoLeaveNoObjects()
    {
        const ObjectWatch watch;
        LocalServer server;
        Client steady;
        QVERIFY(steady.attachToNewEndpoint());
        const auto comeAndGo = [&steady] {
            Client passing;
            QVERIFY(passing.connectToMainSocket());
            QVERIFY(passing.attach(steady.endpoint()));
            passing.heartbeat();
        };
        comeAndGo();
        QTest::qWait(200);
        const int objects = ObjectWatch::objects().size();
        for (int i = 0; i < 500; ++i)
            comeAndGo();
        QTRY_VERIFY2(ObjectWatch::objects().size() <= objects,
                     qPrintable(QString::number(ObjectWatch::objects().size() - objects)));
    }

    void connectionsThatSayNothingLeaveNoObjects()
    {
        const ObjectWatch watch;
        LocalServer server;
        Client steady;
        QVERIFY(steady.attachToNewEndpoint());
        QTest::qWait(200);
        const int objects = ObjectWatch::objects().size();
        for (int i = 0; i < kConnections; i += 100) {
            RawConnections passing;
            QVERIFY(passing.open(shared::getIpcServiceUrl(), 50));
            QVERIFY(passing.open(shared::getIpcProcessUrl(steady.endpoint()), 50));
        }
        QTRY_VERIFY2(ObjectWatch::objects().size() <= objects,
                     qPrintable(QString::number(ObjectWatch::objects().size() - objects)));
    }
};

QTEST_GUILESS_MAIN(Soak)
#include "soak.moc"
