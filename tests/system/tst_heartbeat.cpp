#include "client.h"
#include "daemonprocess.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <memory>
#include <vector>

using standins::serverFor;

/// The thirty seconds between two heartbeats, as the shipped daemon has them; all clients of this
/// test wait at the same time.
class TestHeartbeat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void silentClientsLoseTheirTunnelsAfterThirtySeconds()
    {
        // Their time-outs run inside each other's event loops, and each takes some seconds to stop.
        constexpr int kSilentClients = 60;
        lab::resetPrivateRoot();
        QVERIFY(measures::allowDescriptors(8'192));
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        std::vector<std::unique_ptr<Client>> clients; // the first one never calls
        for (int i = 0; i <= kSilentClients; ++i) {
            clients.push_back(std::make_unique<Client>());
            QVERIFY(clients.back()->attachToNewEndpoint());
            clients.back()->connectUdp(serverFor(i == 0 ? QStringLiteral("prints-at-once-success")
                                                        : QStringLiteral("slow-to-stop")));
            QTRY_COMPARE(clients.back()->outcome(), QStringLiteral("success"));
        }
        const qint64 stackBefore = measures::stackKiB(daemon.pid());
        QVERIFY(stackBefore > 0);

        QElapsedTimer timer;
        timer.start();
        for (int i = 1; i <= kSilentClients; ++i)
            clients[std::size_t(i)]->heartbeat(i % 2 == 0); // false counts as much
        QTRY_COMPARE(daemon.linesWith(QStringLiteral("Replica state is  ")).size(), kSilentClients);
        clients.pop_back(); // which does not matter

        const QString timeOut = QStringLiteral("Client was disconnected");
        QTRY_VERIFY_WITH_TIMEOUT(daemon.count(timeOut) > 0, 35'000);
        QVERIFY2(timer.elapsed() >= 29'900 && timer.elapsed() < 33'000,
                 qPrintable(QString::number(timer.elapsed())));
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 1, 20'000);
        QTRY_COMPARE(daemon.count(timeOut), kSilentClients);
        QVERIFY(measures::stackKiB(daemon.pid()) - stackBefore < 2'048); // of 8 MiB on a Mac

        // A client that never called keeps its tunnel. No client is told anything.
        QVERIFY(standins::isAlive(standins::openvpnStarts().first().pid));
        for (const auto &client : clients)
            QCOMPARE(client->answers().size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestHeartbeat)
#include "tst_heartbeat.moc"
