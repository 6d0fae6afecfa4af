#include "commandqueue.h"

#include <QtTest/QtTest>

/// The order in which the commands of a client get their turn. What several clients share is shown
/// with CommandTotals.
class CommandQueueTest : public QObject
{
    Q_OBJECT

private:
    /// @param words of commands and what becomes of them: "d" is a disconnect, "u1" and "t1" are
    ///        connects to a server of that name.
    void take(const QString &words)
    {
        for (const QString &word : words.split(' ', Qt::SkipEmptyParts)) {
            VpnServerInformation server;
            server.host = word.mid(1);
            if (word == "end")
                m_running.quit();
            else if (word == "quick" || word == "slow" || word == "stubborn")
                m_behaviour = word;
            else
                m_queue->add(Command(m_letters.indexOf(word[0])), server);
        }
    }

    /// The one turn to connect is another client's.
    void takeConnectThatMustWait()
    {
        m_totals->add(&m_other, 502, [] { return false; });
        m_totals->begin(&m_other, true);
        take("u1");
        QCoreApplication::processEvents();
        QCOMPARE(m_events, QStringList());
    }

    void note(const QString &event, Command command, const QString &host = {})
    {
        m_events.append(event + m_letters[int(command)] + host);
    }

    QSharedPointer<CommandTotals> m_totals;
    QScopedPointer<CommandQueue> m_queue;
    QStringList m_events;
    const QString m_letters = " dtu"; ///< of the commands
    QString m_behaviour; ///< of the commands that begin
    QEventLoop m_running; ///< of a command that is not quick
    const int m_other = 0; ///< a client

private Q_SLOTS:
    void init()
    {
        m_events.clear();
        m_behaviour = "quick";
        m_totals.reset(new CommandTotals({1, 1, std::chrono::minutes(1), 1, 1}));
        m_queue.reset(new CommandQueue(
            m_totals, 501, [] { return false; }, nullptr));
        connect(m_queue.data(), &CommandQueue::due, this,
                [this](Command command, const VpnServerInformation &server) {
                    note({}, command, server.host);
                    QTimer::singleShot(5'000, &m_running, &QEventLoop::quit);
                    if (m_behaviour != "quick")
                        m_running.exec();
                });
        connect(m_queue.data(), &CommandQueue::overtaken, this,
                [this](Command command) { note("overtaken ", command); });
        connect(m_queue.data(), &CommandQueue::refused, this,
                [this](Command command) { note("refused ", command); });
        connect(m_queue.data(), &CommandQueue::attemptOvertaken, this, [this] {
            m_events.append("give up");
            if (m_behaviour != "stubborn")
                m_running.quit();
        });
    }

    void cleanup() { m_queue.reset(); }

    void newestCommandDecides_data()
    {
        QTest::addColumn<QString>("steps"); // each with the events that come of it
        QTest::newRow("it runs from the event loop") << "u1 > u1";
        QTest::newRow("connects that wait are overtaken") << "d u1 d t2 > d, overtaken u, d, t2";
        QTest::newRow("a running connect is told once")
            << "stubborn u1 > u1 | t2 > give up | t3 > | quick end > overtaken t, t3";
        QTest::newRow("every running connect is told")
            << "slow u1 > u1 | u2 > give up, u2 | u3 > give up, u3 | end >";
        QTest::newRow("a running disconnect goes on") << "slow d > d | u1 > | quick end > u1";
    }

    /// Each step is taken when all has come of those before; the event loop is then that of the
    /// running command.
    void newestCommandDecides()
    {
        QFETCH(QString, steps);
        QStringList waiting = steps.split('|');
        QStringList expected;
        const auto takeNext = [&] {
            const QStringList step = waiting.takeFirst().split('>');
            expected += step.at(1).trimmed().split(", ", Qt::SkipEmptyParts);
            take(step.at(0));
        };
        takeNext();
        QCOMPARE(m_events, QStringList());
        QTimer settled;
        connect(&settled, &QTimer::timeout, this, [&] {
            if (m_events == expected && !waiting.isEmpty())
                takeNext();
        });
        settled.start(20);
        QTRY_VERIFY(waiting.isEmpty() && !m_running.isRunning());
        QTRY_COMPARE(m_events, expected);
    }

    void oneMoreThanTenThousandOvertakesTheOldest()
    {
        take("u1");
        for (int i = 1; i < 10'000; ++i)
            m_queue->add(Command::Disconnect, {});
        QCOMPARE(m_events, QStringList());
        m_queue->add(Command::Disconnect, {});
        QCOMPARE(m_events, QStringList{"overtaken u"});
    }

    void answersAreGivenOneATurn()
    {
        take("u1 u2 u3");
        while (m_events.size() < 3) {
            const int before = m_events.size();
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            QVERIFY(m_events.size() - before <= 1);
        }
    }

    void connectWaitsForItsTurn()
    {
        takeConnectThatMustWait();
        m_totals->end(&m_other, true);
        QTRY_COMPARE(m_events, QStringList{"u1"});
    }

    void disconnectOvertakesAConnectThatWaitsForItsTurn()
    {
        takeConnectThatMustWait();
        take("d");
        QCoreApplication::processEvents(); // too soon for the connect to ask again
        QCOMPARE(m_events, QStringList{"overtaken u"});
        QTRY_COMPARE(m_events, (QStringList{"overtaken u", "d"}));
    }

    void queueThatGoesTakesItsRequestBack()
    {
        takeConnectThatMustWait();
        m_queue.reset();
        m_totals->end(&m_other, true);
        QVERIFY(m_totals->mayConnect(&m_other));
    }

    void connectBeyondTheTunnelsIsRefused()
    {
        m_totals->add(&m_other, 502, [] { return true; });
        take("t1 d");
        QTRY_COMPARE(m_events, (QStringList{"overtaken t", "d"}));
        take("t1");
        QTRY_COMPARE(m_events.last(), QString("refused t"));
    }
};

QTEST_GUILESS_MAIN(CommandQueueTest)
#include "tst_commandqueue.moc"
