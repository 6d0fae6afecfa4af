#include "client.h"
#include "daemonprocess.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
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
    void init() { lab::resetPrivateRoot(); }

    void silentClientsLoseTheirTunnelsAfterThirtySeconds()
    {
        // Their time-outs run inside each other's event loops, and each takes some seconds to stop.
        constexpr int kSilentClients = 60;
        QVERIFY(measures::allowDescriptors(8'192));
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        const auto connectNew = [](const QString &scenario) {
            auto client = std::make_unique<Client>();
            if (client->attachToNewEndpoint())
                client->connectUdp(serverFor(scenario));
            return client;
        };
        const auto never = connectNew(QStringLiteral("prints-at-once-success"));
        QTRY_COMPARE(never->outcome(), QStringLiteral("success"));
        auto vanished = connectNew(QStringLiteral("prints-at-once-success"));
        QTRY_COMPARE(vanished->outcome(), QStringLiteral("success"));
        std::vector<std::unique_ptr<Client>> silent;
        for (int i = 0; i < kSilentClients; ++i)
            silent.push_back(connectNew(QStringLiteral("slow-to-stop")));
        for (const auto &client : silent)
            QTRY_COMPARE_WITH_TIMEOUT(client->outcome(), QStringLiteral("success"), 20'000);
        const qint64 stackBefore = measures::stackKiB(daemon.pid());
        QVERIFY(stackBefore > 0);

        QElapsedTimer timer;
        timer.start();
        vanished->heartbeat();
        QTRY_COMPARE(daemon.count(QStringLiteral("Replica state is  true")), 1);
        vanished.reset();
        for (const auto &client : silent)
            client->heartbeat(false); // which counts as much
        QTRY_COMPARE(daemon.count(QStringLiteral("Replica state is  false")), kSilentClients);

        const QString timeOut = QStringLiteral("Client was disconnected");
        QTRY_VERIFY_WITH_TIMEOUT(daemon.count(timeOut) > 0, 35'000);
        QVERIFY2(timer.elapsed() >= 29'900 && timer.elapsed() < 33'000,
                 qPrintable(QString::number(timer.elapsed())));
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 1, 20'000);
        QTRY_COMPARE(daemon.count(timeOut), kSilentClients + 1);
        QVERIFY(measures::stackKiB(daemon.pid()) - stackBefore < 2'048); // of 8 MiB on a Mac

        // The one that never called keeps its tunnel, and nobody is told anything.
        QVERIFY(standins::isAlive(standins::openvpnStarts().first().pid));
        never->disconnectTunnel();
        QTRY_COMPARE(never->answers().size(), 2);
        QCOMPARE(standins::runningOpenvpns(), 0);
        for (const auto &client : silent)
            QCOMPARE(client->answers().size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestHeartbeat)
#include "tst_heartbeat.moc"
