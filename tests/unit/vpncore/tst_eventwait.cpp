#include "eventwait.h"

#include "logcapture.h"

#include <QtTest/QtTest>

#include <ctime>
#include <thread>

using namespace std::chrono_literals;

using vpncore::waitUntil;

/// How much later than asked for a wait may end on a busy machine.
#define VERIFY_LASTED(ms)                                                                          \
    do {                                                                                           \
        const qint64 lasted = m_timer.elapsed();                                                   \
        QVERIFY2(lasted >= (ms) && lasted < (ms) + 1'000, qPrintable(QString::number(lasted)));    \
    } while (false)

/// The one way in which the daemon waits.
class TestEventWait : public QObject
{
    Q_OBJECT

private:
    void post(const std::function<void()> &event)
    {
        QMetaObject::invokeMethod(this, event, Qt::QueuedConnection);
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

    void waitEndsAtItsDeadline()
    {
        QVERIFY(!waitUntil(QDeadlineTimer(0), m_never));
        QVERIFY(!waitUntil(QDeadlineTimer(-1s), m_never));
        QCOMPARE(m_tests, 2);
        QVERIFY(!waitUntil(QDeadlineTimer(1), m_never));
        VERIFY_LASTED(1);
        m_timer.start();
        QVERIFY(!waitUntil(QDeadlineTimer(100), m_never));
        VERIFY_LASTED(100);
    }

    void waitWithoutAConditionServesEventsToItsDeadline()
    {
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(20);
        waitUntil(QDeadlineTimer(200));
        VERIFY_LASTED(200);
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
        VERIFY_LASTED(40);
        QCOMPARE(log.lines(), QStringList());
    }

    void innerWaitMayEndFirst()
    {
        bool isInnerDone = false;
        QTimer::singleShot(20, this, [&isInnerDone] {
            waitUntil(QDeadlineTimer(20));
            isInnerDone = true;
        });
        QVERIFY(!waitUntil(QDeadlineTimer(150), m_never));
        QVERIFY(isInnerDone);
        VERIFY_LASTED(150);
    }

    /// And its deadline does not make the inner wait turn in circles.
    void outerDeadlineThatPassesInsideAnInnerWaitEndsTheOuterRightAfterIt()
    {
        QTimer::singleShot(10, this, [this] { waitUntil(QDeadlineTimer(200), m_never); });
        QVERIFY(!waitUntil(QDeadlineTimer(50), [] { return false; }));
        VERIFY_LASTED(200);
        QVERIFY2(m_tests <= 5, qPrintable(QString::number(m_tests)));
    }

    void waitForeverIsEndedByWhatAnInnerWaitDid()
    {
        // The inner wait also serves the events that would have woken the outer one. The outer one
        // must end all the same.
        bool isDone = false;
        post([this, &isDone] {
            QTimer::singleShot(50, this, [this] { post([] {}); });
            waitUntil(QDeadlineTimer(100));
            isDone = true;
        });
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&isDone] { return isDone; }));
        VERIFY_LASTED(100);
    }

    void waitingTakesNoProcessorTime()
    {
        const std::clock_t before = std::clock();
        QVERIFY(!waitUntil(QDeadlineTimer(500), m_never));
        const auto used = (std::clock() - before) * 1'000 / CLOCKS_PER_SEC;
        QVERIFY2(used < 50, qPrintable(QString::number(used)));
    }
};

QTEST_GUILESS_MAIN(TestEventWait)
#include "tst_eventwait.moc"
