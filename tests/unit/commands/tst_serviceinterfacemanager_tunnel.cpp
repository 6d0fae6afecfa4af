#include "serviceinterfacemanager.h"

#include "logcapture.h"
#include "ovpnconnection.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>

using standins::serverFor;

namespace {

const QString kConnect = QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}");
const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");
const QString kTunnel = QStringLiteral("prints-at-once-success");

} // namespace

/// The dispatcher with its real connection, and a stand-in for `openvpn`.
class ManagerWithATunnel : public QObject
{
    Q_OBJECT

private:
    void watch(ServiceInterfaceManager &manager)
    {
        connect(&manager, &ServiceInterfaceManager::vpn_cmd_result, this,
                [this](const QString &, const OperationResult &result) {
                    m_outcomes.append(result.message);
                });
    }

    QSharedPointer<CommandTotals> m_totals{new CommandTotals};
    QStringList m_outcomes;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        m_outcomes.clear();
    }

    void tunnelOutlivesItsManager()
    {
        LogCapture log;
        QObject parent;
        auto *manager = new ServiceInterfaceManager(m_totals, 501, &parent);
        manager->parseVpnCmd(kConnect, serverFor(kTunnel));
        QCOMPARE(standins::runningOpenvpns(), 1);
        delete manager;
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(log.count(QStringLiteral("result output  true")), 0);
        // Nobody is left to stop it.
        QCOMPARE(::kill(pid_t(standins::openvpnStarts().first().pid), SIGKILL), 0);
        QTRY_COMPARE(standins::runningOpenvpns(), 0);
    }

    void newestCommandWinsWhereverItComesFrom_data()
    {
        QTest::addColumn<bool>("firstIsDirect");
        QTest::addColumn<bool>("secondIsDirect");
        QTest::newRow("direct inside a client's") << false << true;
        QTest::newRow("direct inside direct") << true << true;
        QTest::newRow("client's inside direct") << true << false;
    }

    void newestCommandWinsWhereverItComesFrom()
    {
        QFETCH(bool, firstIsDirect);
        QFETCH(bool, secondIsDirect);
        ServiceInterfaceManager manager(m_totals, 501, nullptr);
        watch(manager);
        const auto command = [&manager](bool isDirect, const QString &scenario) {
            if (isDirect)
                manager.parseVpnCmd(kConnect, serverFor(scenario));
            else
                manager.vpn_command(kConnect, serverFor(scenario));
        };
        QTimer poll;
        connect(&poll, &QTimer::timeout, this, [&] {
            if (standins::runningOpenvpns() == 0)
                return;
            poll.stop();
            command(secondIsDirect, kTunnel);
        });
        poll.start(5);
        command(firstIsDirect, QStringLiteral("silent"));
        QTRY_COMPARE(m_outcomes, (QStringList{QString(), kAttemptFailed}));
        QCOMPARE(standins::openvpnStarts().size(), 2);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void heartbeatTimeOutEndsARunningConnect()
    {
        vpncore::OvpnConnection connection;
        ServiceInterfaceManager manager(&connection, m_totals, 501, std::chrono::milliseconds(200),
                                        nullptr);
        watch(manager);
        manager.server_slot(true);
        manager.vpn_command(kConnect, serverFor(QStringLiteral("silent")));
        QTRY_COMPARE(m_outcomes, QStringList{kAttemptFailed});
        QCOMPARE(standins::openvpnStarts().size(), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }
};

QTEST_GUILESS_MAIN(ManagerWithATunnel)
#include "tst_serviceinterfacemanager_tunnel.moc"
