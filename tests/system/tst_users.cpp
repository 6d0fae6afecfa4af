#include "asuser.h"
#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "privateroot.h"
#include "rawconnection.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <memory>
#include <vector>

using standins::serverFor;

namespace {

constexpr uid_t kRoot = 0;
constexpr uid_t kUser = 501;
constexpr uid_t kHostileUser = 502;

const QString kSuccess = QStringLiteral("success");
const QString kCannotStart = QStringLiteral("warning.open_vpn_running_fails_check_apps");

using Clients = std::vector<std::unique_ptr<Client>>;

/// @return a client of @p user with an endpoint of its own; null when it gets none.
std::unique_ptr<Client> clientOf(uid_t user)
{
    const lab::AsUser as(user);
    auto client = std::make_unique<Client>();
    return client->attachToNewEndpoint() ? std::move(client) : nullptr;
}

} // namespace

/// Whose an endpoint is, and what one user can do to another.
class TestUsers : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<DaemonProcess> m_daemon;

private Q_SLOTS:
    void initTestCase()
    {
        if (!lab::AsUser(kUser).isActive())
            QSKIP("this private root has one user only");
    }

    void init()
    {
        lab::resetPrivateRoot();
        m_daemon.reset(new DaemonProcess);
    }

    void cleanup()
    {
        QVERIFY(m_daemon->isRunning());
        m_daemon.reset();
    }

    void endpointBelongsToItsUser_data()
    {
        QTest::addColumn<uint>("owner");
        QTest::addColumn<uint>("visitor");
        QTest::addColumn<bool>("isServed");
        QTest::newRow("the same user") << uint(kUser) << uint(kUser) << true;
        QTest::newRow("another user") << uint(kUser) << uint(kHostileUser) << false;
        QTest::newRow("a user at root's") << uint(kRoot) << uint(kUser) << false;
        QTest::newRow("root") << uint(kUser) << uint(kRoot) << true;
    }

    void endpointBelongsToItsUser()
    {
        QFETCH(uint, owner);
        QFETCH(uint, visitor);
        QFETCH(bool, isServed);
        QVERIFY(m_daemon->start());
        const auto client = clientOf(owner);
        QVERIFY(client);
        RawConnections visit;
        {
            const lab::AsUser as(visitor);
            visit = openConnections(shared::getIpcProcessUrl(client->endpoint()), 1);
        }
        QTRY_COMPARE(m_daemon->count(QStringLiteral("IpcServer new connection")), 2);
        QTRY_COMPARE(closedByPeer(visit), isServed ? 0 : 1);
        QTRY_COMPARE(m_daemon->count(QStringLiteral(
                         "Connection refused: the endpoint belongs to another user")),
                     isServed ? 0 : 1);
        client->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(client->outcome(), kSuccess);
    }

    /// With launchd's limit of 256 descriptors.
    void oneUsersConnectionsAndEndpointsLeaveEnoughForOthers()
    {
        m_daemon->setWrapper({QStringLiteral("prlimit"), QStringLiteral("--nofile=256")});
        QVERIFY(m_daemon->start());
        Clients hostile;
        for (int i = 0; i < 21; ++i) { // of three descriptors each, 64 are all
            hostile.push_back(clientOf(kHostileUser));
            QVERIFY(hostile.back());
        }
        RawConnections flood;
        {
            const lab::AsUser as(kHostileUser);
            flood = openConnections(shared::getIpcServiceUrl(), 200);
        }
        QTRY_VERIFY(m_daemon->count(QStringLiteral("Connection refused: its user has too many"))
                    >= 190);
        for (const auto &client : hostile)
            client->connectUdp(serverFor(QStringLiteral("connects")));
        QVERIFY(m_daemon->descriptors() < 160);

        auto during = clientOf(kUser);
        QVERIFY(during);
        during->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE_WITH_TIMEOUT(during->outcome(), kSuccess, 30'000);
        hostile.clear();
        flood.clear();
        auto after = clientOf(kUser);
        QVERIFY(after);
        // Endpoints stay, but what his connections took he has again.
        QTRY_VERIFY(clientOf(kHostileUser));
        during->disconnectTunnel();
        QTRY_COMPARE_WITH_TIMEOUT(during->answers().size(), 2, 30'000);
    }

    void sixteenTunnelsAreAllThatOneUserHas()
    {
        QVERIFY(m_daemon->start());
        Clients clients;
        for (int i = 0; i < 17; ++i) {
            clients.push_back(clientOf(kHostileUser));
            QVERIFY(clients.back());
            clients.back()->connectUdp(serverFor(QStringLiteral("connects")));
            QTRY_COMPARE(clients.back()->outcome(), i < 16 ? kSuccess : kCannotStart);
        }
        QCOMPARE(standins::runningOpenvpns(), 16);
        const auto other = clientOf(kUser);
        other->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(other->outcome(), kSuccess);
        // Who has a tunnel may replace it.
        clients.front()->connectTcp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(clients.front()->outcome(1), kSuccess);
        clients.front()->disconnectTunnel();
        QTRY_COMPARE(clients.front()->outcome(2), kSuccess);
        clients.back()->connectUdp(serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(clients.back()->outcome(1), kSuccess);
    }

    void hostileUserCannotHoldUpAnothersDisconnect_data()
    {
        QTest::addColumn<bool>("isFloodedBefore");
        QTest::newRow("flooded before it") << true;
        QTest::newRow("flooded while it waits") << false;
    }

    /// A user with 64 clients connects to silent servers without a pause. What begins inside the
    /// wait of the disconnect holds its answer up.
    void hostileUserCannotHoldUpAnothersDisconnect()
    {
        QFETCH(bool, isFloodedBefore);
        QVERIFY(m_daemon->start());
        const auto victim = clientOf(kUser);
        victim->connectUdp(serverFor(QStringLiteral("slow-to-stop")));
        QTRY_COMPARE(victim->outcome(), kSuccess);
        const QString told =
            QStringLiteral("%1 is told to end").arg(standins::openvpnStarts().first().pid);
        Clients hostile;
        for (int i = 0; i < 64; ++i) {
            hostile.push_back(clientOf(kHostileUser));
            QVERIFY(hostile.back());
        }
        QTimer flood;
        std::size_t next = 0;
        connect(&flood, &QTimer::timeout, this, [&] {
            if (next < hostile.size())
                hostile[next++]->connectUdp(serverFor(QStringLiteral("silent")));
        });
        if (isFloodedBefore) {
            flood.start(50);
            QTRY_VERIFY(standins::openvpnStarts().size() > 2);
        }

        QElapsedTimer timer;
        timer.start();
        victim->disconnectTunnel();
        QTRY_VERIFY(standins::stateLines(QStringLiteral("openvpn/journal")).contains(told));
        const qint64 toldToEnd = timer.elapsed();
        flood.start(50);
        QTRY_COMPARE_WITH_TIMEOUT(victim->answers().size(), 2, 80'000);
        const qint64 answered = timer.elapsed();
        qInfo("openvpn was told to end within %lld ms, the answer came after %lld ms", toldToEnd,
              answered);
        QVERIFY2(toldToEnd < 1'000, qPrintable(QString::number(toldToEnd)));
        QVERIFY2(answered < 70'000, qPrintable(QString::number(answered)));
    }
};

QTEST_GUILESS_MAIN(TestUsers)
#include "tst_users.moc"
