#include "commandtotals.h"

#include "peeruser.h"

#include <QtTest/QtTest>

using namespace std::chrono_literals;
using Users = QVector<quint32>;

/// What the clients share, asked as their queues ask.
class CommandTotalsTest : public QObject
{
    Q_OBJECT

private:
    /// @return clients that stand for themselves, one of each user.
    Users addClients(const Users &users, const std::function<bool(int)> &hasTunnel = {})
    {
        for (int i = 0; i < users.size(); ++i)
            m_totals->add(&users[i], users[i], [=] { return hasTunnel && hasTunnel(i); });
        return users;
    }

    bool begins(const void *client)
    {
        const bool may = m_totals->mayConnect(client);
        if (may)
            m_totals->begin(client, true);
        return may;
    }

    void use(const CommandLimits &limits) { m_totals.reset(new CommandTotals(limits)); }

    QScopedPointer<CommandTotals> m_totals;

private Q_SLOTS:
    void usualLimits()
    {
        const CommandLimits limits;
        QCOMPARE(limits.connects, 8);
        QCOMPARE(limits.connectsOfUser, 2);
        QCOMPARE(limits.joinTime, 16'000ms);
        QCOMPARE(limits.tunnels, 64);
        QCOMPARE(limits.tunnelsOfUser, 16);
    }

    void connectsInsideEachOtherAreLimited_data()
    {
        QTest::addColumn<Users>("users");
        QTest::addColumn<int>("running");
        QTest::newRow("of one user") << Users{501, 501, 501} << 2;
        QTest::newRow("of root") << Users{kRootUser, kRootUser, kRootUser, kRootUser, kRootUser}
                                 << 4;
        QTest::newRow("of all") << Users{501, 502, 501, 502, 503, 504} << 4;
        QTest::newRow("one user does not keep others waiting")
            << Users{501, 501, 501, 501, 502} << 3;
    }

    /// Four in all, two of one user.
    void connectsInsideEachOtherAreLimited()
    {
        QFETCH(Users, users);
        QFETCH(int, running);
        use({4, 2, 1min, 64, 16});
        const Users clients = addClients(users);
        QVector<const quint32 *> begun;
        QVector<const quint32 *> waiting;
        for (const quint32 &client : clients)
            (begins(&client) ? begun : waiting).append(&client);
        QCOMPARE(begun.size(), running);
        for (const quint32 *client : qAsConst(waiting)) {
            QVERIFY(!begins(client));
            m_totals->end(begun.takeFirst(), true);
            // What has ended makes room, for the user and for all.
            QVERIFY(begins(client));
            begun.append(client);
        }
    }

    void turnsAreGivenInTheOrderOfArrival()
    {
        use({1, 1, 1min, 64, 16});
        const Users clients = addClients({501, 502, 503, 504});
        QVERIFY(begins(&clients[0]));
        for (int i = 1; i < 4; ++i)
            QVERIFY(!begins(&clients[i]));
        m_totals->end(&clients[0], true);
        QVERIFY(!begins(&clients[2])); // who asks more often is later all the same
        QVERIFY(begins(&clients[1]));
        m_totals->end(&clients[1], true);
        m_totals->remove(&clients[2]); // who has gone holds nobody up
        QVERIFY(begins(&clients[3]));
    }

    void noConnectJoinsCommandsThatRunForLong()
    {
        use({8, 2, 20ms, 64, 16});
        const Users clients = addClients({501, 502});
        m_totals->begin(&clients[0], false);
        QTest::qSleep(30);
        QVERIFY(!begins(&clients[1]));
        m_totals->end(&clients[0], false);
        QVERIFY(begins(&clients[1]));
    }

    void tunnelsAreLimited_data()
    {
        QTest::addColumn<Users>("users"); // the first is who asks, the others have tunnels
        QTest::addColumn<bool>("isTooMany");
        QTest::newRow("of the user") << Users{501, 501, 501} << true;
        QTest::newRow("one less") << Users{501, 501, 502} << false;
        QTest::newRow("of root") << Users{kRootUser, kRootUser, kRootUser, 501} << false;
        QTest::newRow("in all") << Users{kRootUser, kRootUser, 501, 502, 503} << true;
    }

    /// Four in all, two of one user.
    void tunnelsAreLimited()
    {
        QFETCH(Users, users);
        QFETCH(bool, isTooMany);
        use({8, 2, 1min, 4, 2});
        bool hasEnded = false;
        // One's own tunnel is replaced and does not count.
        const Users clients = addClients(users, [&](int i) { return i != 1 || !hasEnded; });
        QCOMPARE(m_totals->hasTooManyTunnels(&clients[0]), isTooMany);
        hasEnded = true;
        QVERIFY(!m_totals->hasTooManyTunnels(&clients[0]));
    }
};

QTEST_GUILESS_MAIN(CommandTotalsTest)
#include "tst_commandtotals.moc"
