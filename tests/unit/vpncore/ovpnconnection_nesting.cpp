#include "logcapture.h"
#include "standins.h"
#include "ovpnconnection.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

using standins::serverFor;
using vpncore::OvpnConnection;

namespace {

const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");

VpnServerInformation silent()
{
    return serverFor(QStringLiteral("silent"));
}

VpnServerInformation successful()
{
    return serverFor(QStringLiteral("prints-at-once-success"));
}

} // namespace

/// Operations called from inside the waits of others, on the same connection.
class OvpnConnectionNesting : public QObject
{
    Q_OBJECT

private:
    /// Calls @p operation from the event loop, that is from inside the next wait.
    void nest(int delayMs, const std::function<OperationResult()> &operation)
    {
        QTimer::singleShot(delayMs, this, [this, operation] { m_nested.append(operation()); });
    }

    OvpnConnection m_connection;
    QVector<OperationResult> m_nested;

private Q_SLOTS:
    void cleanup()
    {
        m_connection.disconnect();
        m_nested.clear();
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void disconnectInsideAConnectEndsTheAttempt()
    {
        QElapsedTimer timer;
        timer.start();
        nest(1'000, [this] { return m_connection.disconnect(); });
        const OperationResult result = m_connection.connectUdp(silent());
        QVERIFY(timer.elapsed() < 2'000);
        QVERIFY(!result.success);
        QCOMPARE(result.message, kAttemptFailed);
        QCOMPARE(m_nested.size(), 1);
        QVERIFY(m_nested.first().success);
        QCOMPARE(standins::openvpnStarts().size(), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void connectInsideAConnectWinsAndStaysUp()
    {
        nest(1'000, [this] { return m_connection.connectTcp(successful()); });
        const OperationResult result = m_connection.connectUdp(silent());
        QVERIFY(!result.success);
        QCOMPARE(result.message, kAttemptFailed);
        QCOMPARE(m_nested.size(), 1);
        QVERIFY(m_nested.first().success);

        const auto starts = standins::openvpnStarts();
        QCOMPARE(starts.size(), 2);
        QVERIFY(!standins::isAlive(starts.at(0).pid));
        QTest::qWait(1'500);
        QVERIFY(standins::isAlive(starts.at(1).pid));
    }

    /// The outer request is beyond its 16 seconds when the nested one has come up.
    void overtakenRequestDoesNotStopTheNewerTunnelWhenItsTimeIsUp()
    {
        nest(5'000,
             [this] { return m_connection.connectUdp(serverFor(QStringLiteral("late-success"))); });
        QElapsedTimer timer;
        timer.start();
        const OperationResult result = m_connection.connectUdp(silent());
        QVERIFY(timer.elapsed() >= 16'000);
        QCOMPARE(result.message, kAttemptFailed);
        QCOMPARE(m_nested.size(), 1);
        QVERIFY(m_nested.first().success);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void attemptThatWasOvertakenIsNotRetried()
    {
        nest(1'200, [this] { return m_connection.disconnect(); });
        const OperationResult result =
            m_connection.connectUdp(serverFor(QStringLiteral("exits-at-once")));
        QCOMPARE(result.message, kAttemptFailed);
        const int starts = standins::openvpnStarts().size();
        QVERIFY(starts >= 1 && starts <= 3);
        QTest::qWait(1'200);
        QCOMPARE(standins::openvpnStarts().size(), starts);
    }

    void newerConfigurationFileIsLeftAlone()
    {
        QString newerConfig;
        nest(1'000, [this] {
            return m_connection.connectUdp(serverFor(QStringLiteral("late-first-output")));
        });
        // While the second attempt waits, the first has not got in its way.
        QTimer::singleShot(3'000, this, [&newerConfig] {
            newerConfig = standins::openvpnStarts().last().arguments.at(2);
            QVERIFY(QFile::exists(newerConfig));
        });
        nest(3'500, [this] { return m_connection.disconnect(); });
        QVERIFY(!m_connection.connectUdp(silent()).success);
        QVERIFY(!newerConfig.isEmpty());
        QVERIFY(!QFile::exists(newerConfig));
    }

    void disconnectInsideADisconnectRestoresDnsOnce()
    {
        QVERIFY(m_connection.connectUdp(serverFor(QStringLiteral("slow-to-stop"))).success);
        LogCapture log;
        nest(500, [this] { return m_connection.disconnect(); });
        QVERIFY(m_connection.disconnect().success);
        QCOMPARE(m_nested.size(), 1);
        QVERIFY(m_nested.first().success);
        QCOMPARE(log.count(QStringLiteral("result output  true")), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void connectInsideADisconnectWinsAndStaysUp()
    {
        QVERIFY(m_connection.connectUdp(serverFor(QStringLiteral("slow-to-stop"))).success);
        nest(500, [this] { return m_connection.connectUdp(successful()); });
        QVERIFY(m_connection.disconnect().success);
        QCOMPARE(m_nested.size(), 1);
        QVERIFY(m_nested.first().success);
        QTest::qWait(500);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void disconnectInsideTheFirstStepOfAConnectEndsIt()
    {
        QVERIFY(m_connection.connectUdp(serverFor(QStringLiteral("slow-to-stop"))).success);
        nest(500, [this] { return m_connection.disconnect(); });
        const OperationResult result = m_connection.connectUdp(successful());
        QCOMPARE(result.message, kAttemptFailed);
        QCOMPARE(standins::openvpnStarts().size(), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void threeDeepTheInnermostDecides()
    {
        nest(500, [this] { return m_connection.connectTcp(silent()); });
        nest(1'500, [this] { return m_connection.connectUdp(successful()); });
        const OperationResult result = m_connection.connectUdp(silent());
        QCOMPARE(result.message, kAttemptFailed);
        QCOMPARE(m_nested.size(), 2);
        QVERIFY(m_nested.at(0).success);
        QCOMPARE(m_nested.at(1).message, kAttemptFailed);
        QCOMPARE(standins::openvpnStarts().size(), 3);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }
};

QTEST_GUILESS_MAIN(OvpnConnectionNesting)
#include "ovpnconnection_nesting.moc"
