#include "eventwait.h"

#include "logcapture.h"

#include <QtTest/QtTest>

#include <thread>

using namespace std::chrono_literals;

using vpncore::waitUntil;

/// The one way in which the daemon waits.
class TestEventWait : public QObject
{
    Q_OBJECT

private:
    void post(const std::function<void()> &event)
    {
        QMetaObject::invokeMethod(this, event, Qt::QueuedConnection);
    }

    /// On a busy machine a wait may end later than asked for, but not by seconds.
    void compareLasted(qint64 ms) const
    {
        const qint64 lasted = m_timer.elapsed();
        QVERIFY2(lasted >= ms && lasted < ms + 1'000, qPrintable(QString::number(lasted)));
    }

    QElapsedTimer m_timer;
    int m_tests = 0;

    /// A condition that never holds, and counts how often it is tested.
    const std::function<bool()> m_never = [this] {
        ++m_tests;
        return false;
    };

private Q_SLOTS:
    void init()
    {
        m_timer.start();
        m_tests = 0;
    }

    void conditionThatHoldsDoesNotTurnTheLoop()
    {
        bool fired = false;
        QTimer::singleShot(0, this, [&fired] { fired = true; });
        QVERIFY(waitUntil(QDeadlineTimer::Forever, [] { return true; }));
        QVERIFY(waitUntil(QDeadlineTimer(0), [] { return true; }));
        QVERIFY(!fired);
        QTRY_VERIFY(fired);
    }

    void waitSleepsUntilItsDeadline()
    {
        QVERIFY(!waitUntil(QDeadlineTimer(0), m_never));
        QVERIFY(!waitUntil(QDeadlineTimer(-1s), m_never));
        QCOMPARE(m_tests, 2);
        QVERIFY(!waitUntil(QDeadlineTimer(200), m_never));
        compareLasted(200);
        QVERIFY2(m_tests <= 10, qPrintable(QString::number(m_tests))); // one for each turn
    }

    void waitWithoutAConditionServesEventsToItsDeadline()
    {
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(20);
        waitUntil(QDeadlineTimer(200));
        compareLasted(200);
        QVERIFY2(ticks >= 2 && ticks <= 10, qPrintable(QString::number(ticks)));
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&ticks] { return ticks >= 12; }));
        QCOMPARE(ticks, 12); // so it is tested after every turn
    }

    void eventWakesTheWait_data()
    {
        QTest::addColumn<QDeadlineTimer>("deadline");
        QTest::newRow("deadline") << QDeadlineTimer(30s);
        QTest::newRow("no deadline") << QDeadlineTimer(QDeadlineTimer::Forever);
        // More milliseconds than fit into the interval of a QTimer, which Qt would log.
        QTest::newRow("deadline beyond the range of timers") << QDeadlineTimer(24h * 30);
    }

    void eventWakesTheWait()
    {
        QFETCH(QDeadlineTimer, deadline);
        const LogCapture log;
        int events = 0; // counted in this thread
        const auto count = [&events] { ++events; };
        QTimer::singleShot(20, Qt::PreciseTimer, this, count);
        QVERIFY(waitUntil(deadline, [&events] { return events == 1; }));
        // Of two events, the first of which posts the second, nothing is left that wakes the loop.
        post([&] { post(count); });
        QVERIFY(waitUntil(deadline, [&events] { return events == 2; }));
        std::thread other([&] {
            std::this_thread::sleep_for(20ms);
            post(count);
        });
        QVERIFY(waitUntil(deadline, [&events] { return events == 3; }));
        other.join();
        compareLasted(40);
        QCOMPARE(log.lines(), QStringList());
    }

    void waitsMayNest_data()
    {
        QTest::addColumn<int>("outer");
        QTest::addColumn<int>("inner");
        QTest::newRow("the inner one ends first") << 150 << 20;
        QTest::newRow("the outer deadline passes inside the inner one") << 50 << 200;
    }

    void waitsMayNest()
    {
        QFETCH(int, outer);
        QFETCH(int, inner);
        QTimer::singleShot(10, this, [this, inner] { waitUntil(QDeadlineTimer(inner), m_never); });
        QVERIFY(!waitUntil(QDeadlineTimer(outer), m_never));
        compareLasted(std::max(outer, inner));
        QVERIFY2(m_tests <= 10, qPrintable(QString::number(m_tests)));
    }

    /// The inner wait also serves the events that would have woken the outer one.
    void innerWaitEndsWhatTheOuterOneWaitsFor()
    {
        bool isDone = false;
        post([this, &isDone] {
            QTimer::singleShot(50, this, [this] { post([] {}); });
            waitUntil(QDeadlineTimer(100));
            isDone = true;
        });
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&isDone] { return isDone; }));
        compareLasted(100);
    }
};

QTEST_GUILESS_MAIN(TestEventWait)
#include "tst_eventwait.moc"
