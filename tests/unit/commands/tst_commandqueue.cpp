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
    explicit Client(const QSharedPointer<CommandTotals> &totals)
        : queue(totals, nullptr)
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

    /// Takes the steps one by one from the event loop, which is then that of the running command.
    void duringTheCommand(const QVector<std::function<void()>> &steps)
    {
        for (int i = 0; i < steps.size(); ++i)
            QTimer::singleShot(20 * (i + 1), this, steps.at(i));
    }

private Q_SLOTS:
    void init()
    {
        m_totals.reset(new CommandTotals);
        m_client = std::make_unique<Client>(m_totals);
    }

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
        for (int i = 0; i < 10'000; ++i)
            m_client->queue.add(Command::Disconnect, {});
        QCOMPARE(m_client->events.size(), 0);
        m_client->queue.add(Command::Disconnect, {});
        QCOMPARE(m_client->events, QStringList{QStringLiteral("overtaken disconnect")});
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

    /// Commands of different clients run inside each other: 64 of them, and no further one until
    /// all of these have ended.
    void onlySixtyFourRunInsideEachOther()
    {
        std::vector<std::unique_ptr<Client>> clients;
        const auto running = [&clients] {
            return std::count_if(clients.begin(), clients.end(),
                                 [](const auto &client) { return client->isRunning(); });
        };
        for (int i = 0; i < 66; ++i) {
            clients.push_back(std::make_unique<Client>(m_totals));
            clients.back()->isSlow = true;
            clients.back()->queue.add(Command::ConnectUdp, serverOf(i));
        }
        // Nested waits end from the inside, so all of this happens in the innermost of them.
        QVector<qint64> counts;
        QTimer::singleShot(250, this, [&] {
            counts.append(running());
            clients[63]->end();
        });
        QTimer::singleShot(500, this, [&] {
            counts.append(running());
            for (const auto &client : clients) {
                client->isSlow = false;
                if (client->isRunning())
                    client->end();
            }
        });
        QTRY_COMPARE(clients[65]->events.size(), 1);
        QTRY_COMPARE(running(), 0);
        QCOMPARE(counts, (QVector<qint64>{64, 63}));
    }
};

QTEST_GUILESS_MAIN(CommandQueueOrder)
#include "tst_commandqueue.moc"
