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
        for (const QString &word : words.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
            VpnServerInformation server;
            server.host = word.mid(1);
            if (word == QLatin1String("slow") || word == QLatin1String("stubborn"))
                m_behaviour = word;
            else if (word == QLatin1String("end"))
                end();
            else if (word == QLatin1String("quick"))
                m_behaviour.clear();
            else
                m_queue->add(word == QLatin1String("d")              ? Command::Disconnect
                                 : word.startsWith(QLatin1Char('u')) ? Command::ConnectUdp
                                                                     : Command::ConnectTcp,
                             server);
        }
    }

    void note(const QString &event, Command command, const QString &host = {})
    {
        const QStringList names{QStringLiteral("none"), QStringLiteral("d"), QStringLiteral("t"),
                                QStringLiteral("u")};
        m_events.append(event + names.at(int(command)) + host);
    }

    void run()
    {
        if (m_behaviour.isEmpty())
            return;
        QEventLoop loop;
        QTimer::singleShot(5'000, &loop, &QEventLoop::quit);
        const QScopedValueRollback<QEventLoop *> running(m_loop, &loop);
        loop.exec();
    }

    void end()
    {
        if (m_loop)
            m_loop->quit();
    }

    QSharedPointer<CommandTotals> m_totals;
    QScopedPointer<CommandQueue> m_queue;
    QStringList m_events;
    QString m_behaviour; ///< of the commands that begin; without one they end at once
    QEventLoop *m_loop = nullptr; ///< of the running command
    const int m_other = 0; ///< a client

private Q_SLOTS:
    void init()
    {
        m_events.clear();
        m_behaviour.clear();
        m_totals.reset(new CommandTotals({1, 1, std::chrono::minutes(1), 1, 1}));
        m_queue.reset(new CommandQueue(
            m_totals, 501, [] { return false; }, nullptr));
        connect(m_queue.data(), &CommandQueue::due, this,
                [this](Command command, const VpnServerInformation &server) {
                    note({}, command, server.host);
                    run();
                });
        connect(m_queue.data(), &CommandQueue::overtaken, this,
                [this](Command command) { note(QStringLiteral("overtaken "), command); });
        connect(m_queue.data(), &CommandQueue::refused, this,
                [this](Command command) { note(QStringLiteral("refused "), command); });
        connect(m_queue.data(), &CommandQueue::attemptOvertaken, this, [this] {
            m_events.append(QStringLiteral("give up"));
            if (m_behaviour != QLatin1String("stubborn"))
                end();
        });
    }

    void cleanup() { m_queue.reset(); }

    void newestCommandDecides_data()
    {
        QTest::addColumn<QString>("steps"); // each with the events that come of it
        const auto row = [](const char *name, const char *steps) {
            QTest::newRow(name) << QString::fromLatin1(steps);
        };
        row("it runs from the event loop", "u1 > u1");
        row("connects that wait are overtaken", "d u1 d t2 > d, overtaken u, d, t2");
        row("a running connect is told once",
            "stubborn u1 > u1 | t2 > give up | t3 > | quick end > overtaken t, t3");
        row("every running connect is told",
            "slow u1 > u1 | u2 > give up, u2 | u3 > give up, u3 | end >");
        row("a running disconnect goes on", "slow d > d | u1 > | quick end > u1");
    }

    /// Each step is taken when all has come of those before; the event loop is then that of the
    /// running command.
    void newestCommandDecides()
    {
        QFETCH(QString, steps);
        QStringList waiting = steps.split(QLatin1Char('|'));
        QStringList expected;
        const auto takeNext = [&] {
            const QStringList step = waiting.takeFirst().split(QLatin1Char('>'));
            expected += step.at(1).trimmed().split(QStringLiteral(", "), Qt::SkipEmptyParts);
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
        QTRY_VERIFY(waiting.isEmpty() && !m_loop);
        QTRY_COMPARE(m_events, expected);
    }

    void oneMoreThanTenThousandOvertakesTheOldest()
    {
        take(QStringLiteral("u1"));
        for (int i = 1; i < 10'000; ++i)
            m_queue->add(Command::Disconnect, {});
        QCOMPARE(m_events, QStringList());
        m_queue->add(Command::Disconnect, {});
        QCOMPARE(m_events, QStringList{QStringLiteral("overtaken u")});
    }

    void answersAreGivenOneATurn()
    {
        take(QStringLiteral("u1 u2 u3"));
        while (m_events.size() < 3) {
            const int before = m_events.size();
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            QVERIFY(m_events.size() - before <= 1);
        }
    }

    /// A disconnect never waits for one.
    void connectWaitsForItsTurn_data()
    {
        QTest::addColumn<QString>("next");
        QTest::addColumn<QString>("events");
        QTest::newRow("its turn comes") << QString() << "u1";
        QTest::newRow("a disconnect comes") << "d"
                                            << "overtaken u, d";
    }

    void connectWaitsForItsTurn()
    {
        QFETCH(QString, next);
        QFETCH(QString, events);
        m_totals->add(&m_other, 502, [] { return false; });
        m_totals->begin(&m_other, true);
        take(QStringLiteral("u1"));
        QCoreApplication::processEvents();
        QCOMPARE(m_events, QStringList());
        take(next);
        QCoreApplication::processEvents(); // too soon for the connect to ask again
        QCOMPARE(m_events.isEmpty(), next.isEmpty());
        if (next.isEmpty())
            m_totals->end(&m_other, true);
        QTRY_COMPARE(m_events.join(QStringLiteral(", ")), events);
    }

    void queueThatGoesTakesItsRequestBack()
    {
        m_totals->add(&m_other, 502, [] { return false; });
        m_totals->begin(&m_other, true);
        take(QStringLiteral("u1"));
        QCoreApplication::processEvents();
        m_queue.reset();
        m_totals->end(&m_other, true);
        QVERIFY(m_totals->mayConnect(&m_other));
    }

    void connectBeyondTheTunnelsIsRefused()
    {
        m_totals->add(&m_other, 502, [] { return true; });
        take(QStringLiteral("t1 d"));
        QTRY_COMPARE(m_events.join(QStringLiteral(", ")), QStringLiteral("overtaken t, d"));
        take(QStringLiteral("t1"));
        QTRY_COMPARE(m_events.last(), QStringLiteral("refused t"));
    }
};

QTEST_GUILESS_MAIN(CommandQueueTest)
#include "tst_commandqueue.moc"
