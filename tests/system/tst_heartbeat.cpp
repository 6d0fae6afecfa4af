#include "client.h"
#include "daemonprocess.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

using standins::serverFor;

/// The limit of silence as the shipped daemon has it. It has a program of its own so that it passes
/// beside the other limits.
class TestHeartbeat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    /// All clients wait at the same time.
    void silentClientsLoseTheirTunnelsAfterThirtySeconds()
    {
        // Their time-outs run inside each other's event loops, and each takes some seconds to stop.
        constexpr int kSilentClients = 60;
        lab::resetPrivateRoot();
        QVERIFY(measures::allowDescriptors(8'192));
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Clients clients = attachedClients(1 + kSilentClients); // the first one never calls
        for (const auto &client : clients) {
            const bool neverCalls = client == clients.front();
            client->connectUdp(serverFor(neverCalls ? "prints-at-once-success" : "slow-to-stop"));
            QTRY_COMPARE(client->outcome(), "success");
        }
        const qint64 stackBefore = measures::statusOf(daemon.pid(), "VmStk");
        QVERIFY(stackBefore > 0);

        QElapsedTimer timer;
        timer.start();
        for (int i = 1; i <= kSilentClients; ++i)
            clients[std::size_t(i)]->heartbeat(i % 2 == 0); // false counts as much
        QTRY_COMPARE(daemon.linesWith("Replica state is  ").size(), kSilentClients);
        clients.pop_back(); // which does not matter

        const QString timeOut = "Client was disconnected";
        QTRY_VERIFY_WITH_TIMEOUT(daemon.count(timeOut) > 0, 35'000);
        QVERIFY2(timer.elapsed() >= 29'900 && timer.elapsed() < 33'000,
                 qPrintable(QString::number(timer.elapsed())));
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 1, 20'000);
        QTRY_COMPARE(daemon.count(timeOut), kSilentClients);
        QVERIFY(measures::statusOf(daemon.pid(), "VmStk") - stackBefore
                < 2'048); // of 8 MiB on a Mac

        // A client that never called keeps its tunnel. No client is told anything.
        QVERIFY(standins::isAlive(standins::openvpnStarts().first().pid));
        for (const auto &client : clients)
            QCOMPARE(client->answers().size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestHeartbeat)
#include "tst_heartbeat.moc"
