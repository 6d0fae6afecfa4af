#include "eventwait.h"

#include "logcapture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <chrono>
#include <thread>

#include <sys/resource.h>

using namespace std::chrono_literals;

using vpncore::waitUntil;

namespace {

/// The processor time that this process has used, in milliseconds.
qint64 processorTime()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval &time) { return time.tv_sec * 1000 + time.tv_usec / 1000; };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

bool never()
{
    return false;
}

bool always()
{
    return true;
}

/// A condition that never holds, and counts how often it is tested.
class Counter
{
public:
    std::function<bool()> condition()
    {
        return [this] {
            ++m_tests;
            return false;
        };
    }
    int tests() const { return m_tests; }

private:
    int m_tests = 0;
};

} // namespace

/// How much later than asked for a wait may end on a busy machine.
#define VERIFY_LASTED(timer, ms)                                                                   \
    do {                                                                                           \
        const qint64 lasted = (timer).elapsed();                                                   \
        QVERIFY2(lasted >= (ms) && lasted < (ms) + 1'000, qPrintable(QString::number(lasted)));    \
    } while (false)

/// The one way in which the daemon waits.
class TestEventWait : public QObject
{
    Q_OBJECT

private:
    QElapsedTimer m_timer;

private Q_SLOTS:
    void init() { m_timer.start(); }

    void conditionThatHoldsDoesNotTurnTheLoop()
    {
        bool fired = false;
        QTimer::singleShot(0, this, [&fired] { fired = true; });
        QVERIFY(waitUntil(QDeadlineTimer(QDeadlineTimer::Forever), always));
        QVERIFY(!fired);
        QTRY_VERIFY(fired);
    }

    void conditionThatHoldsWinsOverAPassedDeadline()
    {
        QVERIFY(waitUntil(QDeadlineTimer(0), always));
    }

    void passedDeadlineTestsTheConditionOnce()
    {
        Counter counter;
        QVERIFY(!waitUntil(QDeadlineTimer(0), counter.condition()));
        QCOMPARE(counter.tests(), 1);
        QVERIFY(!waitUntil(QDeadlineTimer(-1s), never));
        VERIFY_LASTED(m_timer, 0);
    }

    void waitEndsAtItsDeadline_data()
    {
        QTest::addColumn<int>("ms");
        QTest::newRow("shortest") << 1;
        QTest::newRow("longer") << 100;
    }

    void waitEndsAtItsDeadline()
    {
        QFETCH(int, ms);
        QVERIFY(!waitUntil(QDeadlineTimer(ms), never));
        VERIFY_LASTED(m_timer, ms);
    }

    void waitWithoutAConditionServesEventsToItsDeadline()
    {
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(20);
        waitUntil(QDeadlineTimer(200));
        VERIFY_LASTED(m_timer, 200);
        QVERIFY2(ticks >= 2 && ticks <= 10, qPrintable(QString::number(ticks)));
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
        bool isDone = false; // set in this thread, by the event
        QTimer::singleShot(20, Qt::PreciseTimer, this, [&isDone] { isDone = true; });
        QVERIFY(waitUntil(deadline, [&isDone] { return isDone; }));
        isDone = false;
        const auto post = [this, &isDone] {
            QMetaObject::invokeMethod(
                this, [&isDone] { isDone = true; }, Qt::QueuedConnection);
        };
        post();
        QVERIFY(waitUntil(deadline, [&isDone] { return isDone; }));
        isDone = false;
        std::thread poster([&post] {
            std::this_thread::sleep_for(20ms);
            post();
        });
        QVERIFY(waitUntil(deadline, [&isDone] { return isDone; }));
        poster.join();
        VERIFY_LASTED(m_timer, 40);
        QCOMPARE(log.lines(), QStringList());
    }

    /// Of two events, the first of which posts the second, nothing is left that wakes the loop.
    void eventPostedByAnEventEndsTheWait()
    {
        bool isDone = false;
        const auto second = [&isDone] { isDone = true; };
        const auto first = [this, second] {
            QMetaObject::invokeMethod(this, second, Qt::QueuedConnection);
        };
        QMetaObject::invokeMethod(this, first, Qt::QueuedConnection);
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&isDone] { return isDone; }));
        VERIFY_LASTED(m_timer, 0);
    }

    void conditionIsTestedAfterEveryTurn()
    {
        int events = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&events] { ++events; });
        ticker.start(20);
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&events] { return events == 3; }));
        QCOMPARE(events, 3);
    }

    void innerWaitMayEndFirst()
    {
        bool isInnerDone = false;
        QTimer::singleShot(20, this, [&isInnerDone] {
            waitUntil(QDeadlineTimer(20));
            isInnerDone = true;
        });
        QVERIFY(!waitUntil(QDeadlineTimer(150), never));
        QVERIFY(isInnerDone);
        VERIFY_LASTED(m_timer, 150);
    }

    /// And its deadline does not make the inner wait turn in circles.
    void outerDeadlineThatPassesInsideAnInnerWaitEndsTheOuterRightAfterIt()
    {
        Counter counter;
        qint64 innerEnd = 0;
        QTimer::singleShot(10, this, [this, &counter, &innerEnd] {
            waitUntil(QDeadlineTimer(200), counter.condition());
            innerEnd = m_timer.elapsed();
        });
        QVERIFY(!waitUntil(QDeadlineTimer(50), never));
        QVERIFY2(innerEnd >= 200, qPrintable(QString::number(innerEnd)));
        QVERIFY(m_timer.elapsed() - innerEnd < 200);
        QVERIFY2(counter.tests() <= 5, qPrintable(QString::number(counter.tests())));
    }

    void waitForeverIsEndedByWhatAnInnerWaitDid()
    {
        // Nothing else is left then that could wake the outer wait. The inner one serves events
        // that were posted, too, and so takes what would have kept the outer one awake.
        bool isDone = false;
        QMetaObject::invokeMethod(
            this,
            [this, &isDone] {
                QTimer::singleShot(50, this, [this] {
                    QMetaObject::invokeMethod(
                        this, [] {}, Qt::QueuedConnection);
                });
                waitUntil(QDeadlineTimer(100));
                isDone = true;
            },
            Qt::QueuedConnection);
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&isDone] { return isDone; }));
        VERIFY_LASTED(m_timer, 100);
    }

    void waitingTakesNoProcessorTime()
    {
        const qint64 before = processorTime();
        QVERIFY(!waitUntil(QDeadlineTimer(500), never));
        const qint64 used = processorTime() - before;
        QVERIFY2(used < 50, qPrintable(QString::number(used)));
    }

    void waitsInARowLeaveNothingBehind()
    {
        for (int i = 0; i < 50; ++i)
            QVERIFY(!waitUntil(QDeadlineTimer(1), never));
        // A forgotten alarm would end the sleep of this one and test its condition again.
        Counter counter;
        QVERIFY(!waitUntil(QDeadlineTimer(100), counter.condition()));
        QVERIFY2(counter.tests() <= 5, qPrintable(QString::number(counter.tests())));
    }
};

QTEST_GUILESS_MAIN(TestEventWait)
#include "tst_eventwait.moc"
