#include "serviceinterfacemanager.h"

#include "logcapture.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>

/// The dispatcher with its real connection, and a stand-in for `openvpn`.
class ManagerWithATunnel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tunnelOutlivesItsManager()
    {
        lab::resetPrivateRoot();
        LogCapture log;
        QObject parent;
        auto *manager =
            new ServiceInterfaceManager(QSharedPointer<CommandTotals>::create(), 501, &parent);
        QCOMPARE(manager->parent(), &parent);
        manager->parseVpnCmd(QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}"),
                             standins::serverFor(QStringLiteral("prints-at-once-success")));
        QCOMPARE(standins::runningOpenvpns(), 1);
        delete manager;
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(log.count(QStringLiteral("result output  true")), 0);
        // Nobody is left to stop it.
        QCOMPARE(::kill(pid_t(standins::openvpnStarts().first().pid), SIGKILL), 0);
        QTRY_COMPARE(standins::runningOpenvpns(), 0);
    }
};

QTEST_GUILESS_MAIN(ManagerWithATunnel)
#include "tst_serviceinterfacemanager_tunnel.moc"
