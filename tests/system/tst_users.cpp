#include "asuser.h"
#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "privateroot.h"
#include "rawconnection.h"
#include "standins.h"

#include <QtTest/QtTest>

using standins::serverFor;

namespace {

constexpr uid_t kRoot = 0;
constexpr uid_t kUser = 501;
constexpr uid_t kHostileUser = 502;

const QString kSuccess = "success";

} // namespace

/// Whose an endpoint is, and what one user can do to another.
class TestUsers : public QObject
{
    Q_OBJECT

private:
    /// @return clients of @p user with an endpoint each.
    static Clients clientsOf(uid_t user, int number)
    {
        const lab::AsUser as(user);
        return attachedClients(number);
    }

    static RawConnections connectionsOf(uid_t user, const QString &name, int number)
    {
        const lab::AsUser as(user);
        return openConnections(name, number);
    }

    std::unique_ptr<DaemonProcess> m_daemon;

private Q_SLOTS:
    void initTestCase()
    {
        if (!lab::AsUser(kUser).isActive())
            QSKIP("this private root has one user only");
    }

    void init()
    {
        lab::resetPrivateRoot();
        m_daemon = std::make_unique<DaemonProcess>();
        // With launchd's limit of descriptors.
        m_daemon->setWrapper({"prlimit", "--nofile=256"});
        QVERIFY(m_daemon->start());
    }

    void cleanup() { QVERIFY(m_daemon->isRunning()); }

    void endpointBelongsToItsUser_data()
    {
        QTest::addColumn<uint>("owner");
        QTest::addColumn<uint>("visitor");
        QTest::addColumn<int>("refused");
        QTest::newRow("the same user") << uint(kUser) << uint(kUser) << 0;
        QTest::newRow("another user") << uint(kUser) << uint(kHostileUser) << 1;
        QTest::newRow("a user at root's") << uint(kRoot) << uint(kUser) << 1;
        QTest::newRow("root") << uint(kUser) << uint(kRoot) << 0;
    }

    void endpointBelongsToItsUser()
    {
        QFETCH(uint, owner);
        QFETCH(uint, visitor);
        QFETCH(int, refused);
        const Clients clients = clientsOf(owner, 1);
        const RawConnections visit =
            connectionsOf(visitor, shared::getIpcProcessUrl(clients.front()->endpoint()), 1);
        QTRY_COMPARE(m_daemon->count("IpcServer new connection"), 2);
        QTRY_COMPARE(closedByPeer(visit), refused);
        QTRY_COMPARE(m_daemon->count("Connection refused: the endpoint belongs to another user"),
                     refused);
        clients.front()->connectUdp(serverFor("connects"));
        QTRY_COMPARE(clients.front()->outcome(), kSuccess);
    }

    void oneUsersConnectionsAndTunnelsLeaveEnoughForOthers()
    {
        // Each client takes three descriptors, and a user has 64. He may have 16 tunnels.
        Clients hostile = clientsOf(kHostileUser, 21);
        RawConnections flood = connectionsOf(kHostileUser, shared::getIpcServiceUrl(), 200);
        QTRY_VERIFY(m_daemon->count("Connection refused: its user has too many") >= 190);
        for (std::size_t i = 0; i < hostile.size(); ++i) {
            hostile[i]->connectUdp(serverFor("connects"));
            QTRY_COMPARE(hostile[i]->outcome(),
                         i < 16 ? kSuccess : "warning.open_vpn_running_fails_check_apps");
        }
        QCOMPARE(standins::runningOpenvpns(), 16);
        QVERIFY(m_daemon->descriptors() < 160);

        const Clients during = clientsOf(kUser, 1);
        during.front()->connectUdp(serverFor("connects"));
        QTRY_COMPARE(during.front()->outcome(), kSuccess);
        hostile.clear();
        flood.clear();
        clientsOf(kUser, 1);
        // His endpoints stay. The descriptors of his connections are free again.
        QTRY_VERIFY(m_daemon->descriptors() < 130);
        clientsOf(kHostileUser, 1);
        during.front()->disconnectTunnel();
        QTRY_COMPARE(during.front()->answers().size(), 2);
    }

    void hostileUserCannotHoldUpAnothersDisconnect_data()
    {
        QTest::addColumn<bool>("isFloodedBefore");
        QTest::newRow("flooded before it") << true;
        QTest::newRow("flooded while it waits") << false;
    }

    /// A user with many clients connects to silent servers. What begins inside the
    /// wait of the disconnect holds its answer up.
    void hostileUserCannotHoldUpAnothersDisconnect()
    {
        QFETCH(bool, isFloodedBefore);
        const Clients victims = clientsOf(kUser, 1);
        Client &victim = *victims.front();
        victim.connectUdp(serverFor("slow-to-stop"));
        QTRY_COMPARE(victim.outcome(), kSuccess);
        const QString told =
            QString("%1 is told to end").arg(standins::openvpnStarts().first().pid);
        const Clients hostile = clientsOf(kHostileUser, 21);
        QTimer flood;
        std::size_t next = 0;
        connect(&flood, &QTimer::timeout, this, [&] {
            if (next < hostile.size())
                hostile[next++]->connectUdp(serverFor("silent"));
        });
        if (isFloodedBefore) {
            flood.start(50);
            QTRY_VERIFY(standins::openvpnStarts().size() > 2);
        }

        QElapsedTimer timer;
        timer.start();
        victim.disconnectTunnel();
        QTRY_VERIFY(standins::stateLines("openvpn/journal").contains(told));
        const qint64 toldToEnd = timer.elapsed();
        flood.start(50);
        QTRY_COMPARE_WITH_TIMEOUT(victim.answers().size(), 2, 80'000);
        const qint64 answered = timer.elapsed();
        qInfo("openvpn was told to end within %lld ms, the answer came after %lld ms", toldToEnd,
              answered);
        QVERIFY2(toldToEnd < 1'000, qPrintable(QString::number(toldToEnd)));
        QVERIFY2(answered < 70'000, qPrintable(QString::number(answered)));
    }
};

QTEST_GUILESS_MAIN(TestUsers)
#include "tst_users.moc"
