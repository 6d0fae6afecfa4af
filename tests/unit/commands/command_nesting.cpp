#include "serviceinterfacemanager.h"
#include "logcapture.h"
#include "standins.h"
#include "ovpnconnection.h"

#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <csignal>
#include <functional>
#include <memory>
#include <vector>

using standins::serverFor;

namespace {

const QString kConnect = QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}");
const QString kDisconnect = QStringLiteral("{\"type\":\"openvpn\",\"cmd\":\"disconnect\"}");
const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");

VpnServerInformation silent()
{
    return serverFor(QStringLiteral("silent"));
}

VpnServerInformation successful()
{
    return serverFor(QStringLiteral("prints-at-once-success"));
}

/// Where the stack is now.
quintptr stackPosition()
{
    return reinterpret_cast<quintptr>(__builtin_frame_address(0));
}

} // namespace

/// Commands inside the waits of others, called as the daemon itself calls them.
class CommandNesting : public QObject
{
    Q_OBJECT

private:
    struct Service
    {
        vpncore::OvpnConnection connection;
        ServiceInterfaceManager manager{&connection, nullptr};
        QStringList outcomes;

        Service()
        {
            connect(&manager, &ServiceInterfaceManager::vpn_cmd_result, &manager,
                    [this](const QString &, const OperationResult &result) {
                        outcomes.append(result.success ? QStringLiteral("success")
                                                       : result.message);
                    });
        }
    };

    /// Calls @p operation from the event loop, that is from inside the wait of the attempt.
    static void onceOpenvpnRuns(const std::function<void()> &operation)
    {
        QTimer::singleShot(20, qApp, [operation] {
            if (standins::runningOpenvpns() > 0)
                operation();
            else
                onceOpenvpnRuns(operation);
        });
    }

private Q_SLOTS:
    void cleanup() { QCOMPARE(standins::runningOpenvpns(), 0); }

    void directCommandInsideAClientsConnectWins()
    {
        Service service;
        service.manager.vpn_command(kConnect, silent());
        onceOpenvpnRuns([&] { service.manager.parseVpnCmd(kConnect, successful()); });
        QTRY_COMPARE(service.outcomes, (QStringList{QStringLiteral("success"), kAttemptFailed}));
        QCOMPARE(standins::openvpnStarts().size(), 2);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void directCommandsInsideADirectConnectWin()
    {
        Service service;
        onceOpenvpnRuns([&] {
            service.manager.parseVpnCmd(kDisconnect, {});
            service.manager.parseVpnCmd(kConnect, successful());
        });
        service.manager.parseVpnCmd(kConnect, silent());
        QCOMPARE(service.outcomes.size(), 3);
        QCOMPARE(service.outcomes.last(), kAttemptFailed);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void clientsCommandInsideADirectConnectWins()
    {
        Service service;
        onceOpenvpnRuns([&] { service.manager.vpn_command(kConnect, successful()); });
        service.manager.parseVpnCmd(kConnect, silent());
        QCOMPARE(service.outcomes, (QStringList{QStringLiteral("success"), kAttemptFailed}));
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void heartbeatTimeOutInsideAConnectEndsIt()
    {
        Service service;
        service.manager.vpn_command(kConnect, silent());
        onceOpenvpnRuns([&] {
            QVERIFY(QMetaObject::invokeMethod(&service.manager, "timeout_slot"));
            QCOMPARE(standins::runningOpenvpns(), 0);
        });
        QTRY_COMPARE(service.outcomes, QStringList{kAttemptFailed});
    }

    void heartbeatTimeOutInsideADisconnectChangesNothing()
    {
        Service service;
        service.manager.parseVpnCmd(kConnect, serverFor(QStringLiteral("slow-to-stop")));
        QCOMPARE(service.outcomes, QStringList{QStringLiteral("success")});
        LogCapture log;
        service.manager.vpn_command(kDisconnect, {});
        QTimer::singleShot(500, this, [&] {
            QCOMPARE(service.outcomes.size(), 1); // it waits
            QVERIFY(QMetaObject::invokeMethod(&service.manager, "timeout_slot"));
        });
        QTRY_COMPARE(service.outcomes,
                     (QStringList{QStringLiteral("success"), QStringLiteral("success")}));
        QCOMPARE(log.count(QStringLiteral("Client was disconnected")), 1);
        QCOMPARE(log.count(QStringLiteral("result output  true")), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
        service.manager.parseVpnCmd(kConnect, successful());
        QCOMPARE(service.outcomes.last(), QStringLiteral("success"));
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void tunnelOutlivesTheManagerThatBroughtItUp()
    {
        LogCapture log;
        {
            ServiceInterfaceManager manager(nullptr);
            manager.parseVpnCmd(kConnect, successful());
            QCOMPARE(standins::runningOpenvpns(), 1);
        }
        QTest::qWait(1'000);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(log.count(QStringLiteral("result output  true")), 0);
        // Nobody is left to stop it.
        QCOMPARE(::kill(pid_t(standins::openvpnStarts().first().pid), SIGKILL), 0);
        QTRY_COMPARE(standins::runningOpenvpns(), 0);
    }

    void eachNestedCommandTakesLittleStack()
    {
        constexpr int levels = 40;
        std::vector<std::unique_ptr<Service>> services;
        quintptr flat = 0;
        quintptr nested = 0;
        const auto probe = [](quintptr &position) {
            QTimer::singleShot(0, [&position] { position = stackPosition(); });
        };
        probe(flat);
        QTRY_VERIFY(flat);
        for (int i = 0; i < levels; ++i) {
            services.push_back(std::make_unique<Service>());
            services.back()->manager.vpn_command(kConnect, silent());
        }
        QTimer::singleShot(3'000, this, [&] {
            QCOMPARE(standins::runningOpenvpns(), levels);
            nested = stackPosition();
            for (const auto &service : services)
                service->manager.vpn_command(kDisconnect, {});
        });
        QTRY_VERIFY_WITH_TIMEOUT(nested, 10'000);
        for (const auto &service : services)
            QTRY_COMPARE_WITH_TIMEOUT(service->outcomes.size(), 2, 10'000);
        const auto perLevel = (flat - nested) / levels;
        qInfo("%llu bytes of stack a level", static_cast<unsigned long long>(perLevel));
        QVERIFY(perLevel > 0);
        // 64 attempts with a disconnect in each are far from the eight MiB of a main thread.
        QVERIFY(perLevel * 2 * 64 < 4 * 1024 * 1024);
    }
};

QTEST_GUILESS_MAIN(CommandNesting)
#include "command_nesting.moc"
