#include "commandqueue.h"

#include <QtCore/QEventLoop>
#include <QtTest/QtTest>

#include <functional>
#include <memory>
#include <vector>

namespace {

VpnServerInformation serverOf(int number)
{
    VpnServerInformation server;
    server.host = QString::number(number);
    return server;
}

/// A queue whose commands run until they are told to end, or end at once.
class Client : public QObject
{
public:
    explicit Client(const QSharedPointer<CommandTotals> &totals, quint32 user = 501)
        : queue(
            totals, user, [this] { return hasTunnel; }, nullptr)
    {
        connect(&queue, &CommandQueue::due, this,
                [this](Command command, const VpnServerInformation &server) {
                    events.append(name(command) + server.host);
                    if (isSlow) {
                        m_loop = std::make_unique<QEventLoop>();
                        m_loop->exec();
                        m_loop.reset();
                    }
                });
        connect(&queue, &CommandQueue::overtaken, this, [this](Command command) {
            events.append(QStringLiteral("overtaken ") + name(command));
        });
        connect(&queue, &CommandQueue::refused, this, [this](Command command) {
            events.append(QStringLiteral("refused ") + name(command));
        });
        connect(&queue, &CommandQueue::attemptOvertaken, this, [this] {
            events.append(QStringLiteral("give up"));
            if (endsWhenOvertaken)
                end();
        });
    }

    bool isRunning() const { return m_loop != nullptr; }

    void end() { m_loop->quit(); }

    CommandQueue queue;
    QStringList events;
    bool isSlow = false;
    bool hasTunnel = false;
    bool endsWhenOvertaken = true;

private:
    static QString name(Command command)
    {
        switch (command) {
        case Command::Disconnect:
            return QStringLiteral("disconnect");
        case Command::ConnectTcp:
            return QStringLiteral("tcp ");
        case Command::ConnectUdp:
            return QStringLiteral("udp ");
        case Command::None:
            break;
        }
        return QStringLiteral("none");
    }

    std::unique_ptr<QEventLoop> m_loop;
};

} // namespace

/// The order in which the commands of a client, and of several, get their turn.
class CommandQueueOrder : public QObject
{
    Q_OBJECT

private:
    QSharedPointer<CommandTotals> m_totals;
    std::unique_ptr<Client> m_client;

    void use(const CommandTotals::Limits &limits)
    {
        m_totals.reset(new CommandTotals(limits));
        m_client = std::make_unique<Client>(m_totals);
    }

    /// Takes the steps one by one from the event loop, which is then that of the running command.
    void duringTheCommand(const QVector<std::function<void()>> &steps)
    {
        for (int i = 0; i < steps.size(); ++i)
            QTimer::singleShot(20 * (i + 1), this, steps.at(i));
    }

private Q_SLOTS:
    void init() { use({}); }

    void cleanup() { m_client.reset(); }

    void commandWaitsForTheEventLoop()
    {
        m_client->queue.add(Command::ConnectUdp, serverOf(1));
        QCOMPARE(m_client->events, QStringList());
        QTRY_COMPARE(m_client->events, QStringList{QStringLiteral("udp 1")});
    }

    void newestOfThoseThatWaitDecides()
    {
        m_client->queue.add(Command::Disconnect, {});
        m_client->queue.add(Command::ConnectUdp, serverOf(1));
        m_client->queue.add(Command::Disconnect, {});
        m_client->queue.add(Command::ConnectTcp, serverOf(2));
        QTRY_COMPARE(m_client->events,
                     (QStringList{QStringLiteral("disconnect"), QStringLiteral("overtaken udp "),
                                  QStringLiteral("disconnect"), QStringLiteral("tcp 2")}));
    }

    void newerCommandEndsARunningConnectOnceAndThenRuns()
    {
        m_client->isSlow = true;
        m_client->endsWhenOvertaken = false;
        m_client->queue.add(Command::ConnectUdp, serverOf(1));
        duringTheCommand({[this] { m_client->queue.add(Command::ConnectTcp, serverOf(2)); },
                          // It gives up already, so it is not told again.
                          [this] { m_client->queue.add(Command::ConnectTcp, serverOf(3)); },
                          [this] {
                              m_client->isSlow = false;
                              m_client->end();
                          }});
        QTRY_COMPARE(m_client->events,
                     (QStringList{QStringLiteral("udp 1"), QStringLiteral("give up"),
                                  QStringLiteral("overtaken tcp "), QStringLiteral("tcp 3")}));
    }

    void everyRunningConnectCanBeOvertaken()
    {
        m_client->isSlow = true;
        m_client->queue.add(Command::ConnectUdp, serverOf(1));
        duringTheCommand({[this] { m_client->queue.add(Command::ConnectUdp, serverOf(2)); },
                          [this] { m_client->queue.add(Command::ConnectUdp, serverOf(3)); },
                          [this] { m_client->end(); }});
        QTRY_COMPARE(m_client->events,
                     (QStringList{QStringLiteral("udp 1"), QStringLiteral("give up"),
                                  QStringLiteral("udp 2"), QStringLiteral("give up"),
                                  QStringLiteral("udp 3")}));
        QTRY_VERIFY(!m_client->isRunning());
    }

    void runningDisconnectIsNotOvertaken()
    {
        m_client->isSlow = true;
        m_client->queue.add(Command::Disconnect, {});
        duringTheCommand({[this] { m_client->queue.add(Command::ConnectUdp, serverOf(1)); },
                          [this] {
                              m_client->isSlow = false;
                              m_client->end();
                          }});
        QTRY_COMPARE(m_client->events,
                     (QStringList{QStringLiteral("disconnect"), QStringLiteral("udp 1")}));
    }

    void oneMoreThanTenThousandOvertakesTheOldest()
    {
        m_client->queue.add(Command::ConnectUdp, serverOf(1));
        for (int i = 1; i < 10'000; ++i)
            m_client->queue.add(Command::Disconnect, {});
        QCOMPARE(m_client->events.size(), 0);
        m_client->queue.add(Command::Disconnect, {});
        QCOMPARE(m_client->events, QStringList{QStringLiteral("overtaken udp ")});
    }

    void answersAreGivenOneATurn()
    {
        for (int i = 0; i < 3; ++i)
            m_client->queue.add(Command::ConnectUdp, serverOf(i));
        int turns = 0;
        while (m_client->events.size() < 3 && turns < 1'000) {
            const int before = m_client->events.size();
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            QVERIFY(m_client->events.size() - before <= 1);
            ++turns;
        }
        QCOMPARE(m_client->events.size(), 3);
    }

    void usualLimits()
    {
        const CommandTotals::Limits limits;
        QCOMPARE(limits.connects, 8);
        QCOMPARE(limits.connectsOfUser, 2);
        QCOMPARE(limits.joinTime.count(), 16'000);
        QCOMPARE(limits.tunnels, 64);
        QCOMPARE(limits.tunnelsOfUser, 16);
    }

    void connectsInsideEachOtherAreLimited_data()
    {
        QTest::addColumn<QVector<quint32>>("users");
        QTest::addColumn<int>("running");
        QTest::newRow("of one user") << QVector<quint32>{501, 501, 501} << 2;
        QTest::newRow("of root") << QVector<quint32>{0, 0, 0, 0, 0} << 4;
        QTest::newRow("of all") << QVector<quint32>{501, 502, 501, 502, 503, 504} << 4;
        QTest::newRow("one user does not keep others waiting")
            << QVector<quint32>{501, 501, 501, 501, 502} << 3;
    }

    /// Four in all, two of one user.
    void connectsInsideEachOtherAreLimited()
    {
        QFETCH(QVector<quint32>, users);
        QFETCH(int, running);
        use({4, 2, std::chrono::minutes(1), 64, 16});
        std::vector<std::unique_ptr<Client>> clients;
        for (const quint32 user : users) {
            clients.push_back(std::make_unique<Client>(m_totals, user));
            clients.back()->isSlow = true;
            clients.back()->queue.add(Command::ConnectUdp, {});
        }
        int counted = -1;
        // Nested waits end from the inside, so this happens in the innermost of them.
        QTimer::singleShot(350, this, [&] {
            counted = int(std::count_if(clients.begin(), clients.end(),
                                        [](const auto &client) { return client->isRunning(); }));
            for (const auto &client : clients) {
                client->isSlow = false;
                if (client->isRunning())
                    client->end();
            }
        });
        for (const auto &client : clients)
            QTRY_COMPARE(client->events, QStringList{QStringLiteral("udp ")});
        QCOMPARE(counted, running);
    }

    void turnsAreGivenInTheOrderOfArrival()
    {
        use({1, 1, std::chrono::minutes(1), 64, 16});
        Client first(m_totals, 501);
        Client second(m_totals, 502);
        Client third(m_totals, 503);
        QStringList order;
        for (Client *client : {&first, &second, &third}) {
            connect(&client->queue, &CommandQueue::due, this,
                    [&order](Command, const VpnServerInformation &server) {
                        order.append(server.host);
                    });
        }
        first.isSlow = true;
        first.queue.add(Command::ConnectUdp, serverOf(1));
        QTimer::singleShot(20, this, [&] { second.queue.add(Command::ConnectUdp, serverOf(2)); });
        // The third one asks more often, and is later all the same.
        QTimer often;
        connect(&often, &QTimer::timeout, this, [&] {
            if (!order.contains(QStringLiteral("3")))
                third.queue.add(Command::ConnectUdp, serverOf(3));
        });
        QTimer::singleShot(60, &often, [&] { often.start(10); });
        QTimer::singleShot(200, this, [&] { first.end(); });
        QTRY_COMPARE(third.events.count(QStringLiteral("udp 3")), 1);
        QCOMPARE(order,
                 (QStringList{QStringLiteral("1"), QStringLiteral("2"), QStringLiteral("3")}));
    }

    void clientThatHasGoneKeepsNobodyWaiting()
    {
        use({1, 1, std::chrono::minutes(1), 64, 16});
        m_client->isSlow = true;
        m_client->queue.add(Command::ConnectUdp, serverOf(1));
        auto gone = std::make_unique<Client>(m_totals, 502);
        Client next(m_totals, 503);
        QTimer::singleShot(20, this, [&] { gone->queue.add(Command::ConnectUdp, serverOf(2)); });
        QTimer::singleShot(40, this, [&] { next.queue.add(Command::ConnectUdp, serverOf(3)); });
        QTimer::singleShot(60, this, [&] {
            gone.reset();
            m_client->end();
        });
        QTRY_COMPARE(next.events, QStringList{QStringLiteral("udp 3")});
    }

    void disconnectNeverWaitsForATurn()
    {
        use({1, 1, std::chrono::minutes(1), 64, 16});
        Client other(m_totals, 502);
        other.isSlow = true;
        other.queue.add(Command::ConnectUdp, serverOf(1));
        QElapsedTimer timer;
        qint64 delay = -1;
        connect(&m_client->queue, &CommandQueue::due, this, [&] { delay = timer.elapsed(); });
        QTimer::singleShot(20, this, [&] {
            m_client->queue.add(Command::ConnectUdp, serverOf(2)); // which is put off
            QTimer::singleShot(30, this, [&] {
                timer.start();
                m_client->queue.add(Command::Disconnect, {});
            });
        });
        QTimer::singleShot(150, this, [&] { other.end(); });
        QTRY_COMPARE(m_client->events,
                     (QStringList{QStringLiteral("overtaken udp "), QStringLiteral("disconnect")}));
        QVERIFY2(delay >= 0 && delay < 60, qPrintable(QString::number(delay)));
    }

    void noConnectJoinsCommandsThatRunForLong()
    {
        use({8, 2, std::chrono::milliseconds(100), 64, 16});
        Client other(m_totals, 502);
        other.isSlow = true;
        other.queue.add(Command::Disconnect, {});
        bool hasJoined = true;
        QTimer::singleShot(150, this,
                           [&] { m_client->queue.add(Command::ConnectUdp, serverOf(2)); });
        QTimer::singleShot(400, this, [&] {
            hasJoined = !m_client->events.isEmpty();
            other.end();
        });
        QTRY_COMPARE(m_client->events, QStringList{QStringLiteral("udp 2")});
        QVERIFY(!hasJoined);
    }

    void connectBeyondTheTunnelsIsRefused_data()
    {
        QTest::addColumn<QVector<quint32>>("tunnels");
        QTest::addColumn<quint32>("user");
        QTest::addColumn<bool>("isRefused");
        QTest::newRow("of the user") << QVector<quint32>{501, 501} << 501u << true;
        QTest::newRow("one less") << QVector<quint32>{501, 502} << 501u << false;
        QTest::newRow("of root") << QVector<quint32>{0, 0, 501} << 0u << false;
        QTest::newRow("in all") << QVector<quint32>{0, 501, 502, 503} << 0u << true;
    }

    /// Four in all, two of one user.
    void connectBeyondTheTunnelsIsRefused()
    {
        QFETCH(QVector<quint32>, tunnels);
        QFETCH(quint32, user);
        QFETCH(bool, isRefused);
        use({8, 2, std::chrono::minutes(1), 4, 2});
        std::vector<std::unique_ptr<Client>> others;
        for (const quint32 other : tunnels) {
            others.push_back(std::make_unique<Client>(m_totals, other));
            others.back()->hasTunnel = true;
        }
        Client client(m_totals, user);
        client.hasTunnel = true; // its own is replaced and does not count
        client.queue.add(Command::ConnectTcp, serverOf(1));
        const QString event = isRefused ? QStringLiteral("refused tcp ") : QStringLiteral("tcp 1");
        QTRY_COMPARE(client.events, QStringList{event});
        // One that goes leaves its place.
        others.pop_back();
        client.queue.add(Command::ConnectTcp, serverOf(2));
        QTRY_COMPARE(client.events, (QStringList{event, QStringLiteral("tcp 2")}));
    }
};

QTEST_GUILESS_MAIN(CommandQueueOrder)
#include "tst_commandqueue.moc"
