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

/// How much later than asked for a wait may end on a busy machine.
constexpr qint64 kLatenessMs = 1'000;

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

} // namespace

#define VERIFY_LASTED(timer, ms)                                                                   \
    do {                                                                                           \
        const qint64 lasted = (timer).elapsed();                                                   \
        QVERIFY2(lasted >= (ms) && lasted < (ms) + kLatenessMs,                                    \
                 qPrintable(QString::number(lasted)));                                             \
    } while (false)

/// The one way in which the daemon waits.
class EventWait : public QObject
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

    void passedDeadlineReturnsAtOnce()
    {
        QVERIFY(!waitUntil(QDeadlineTimer(0), never));
        QVERIFY(!waitUntil(QDeadlineTimer(-1s), never));
        VERIFY_LASTED(m_timer, 0);
    }

    void passedDeadlineTestsTheConditionOnce()
    {
        int tests = 0;
        QVERIFY(!waitUntil(QDeadlineTimer(0), [&tests] {
            ++tests;
            return false;
        }));
        QCOMPARE(tests, 1);
    }

    void waitEndsAtItsDeadline()
    {
        QVERIFY(!waitUntil(QDeadlineTimer(300), never));
        VERIFY_LASTED(m_timer, 300);
    }

    void waitWithoutAConditionEndsAtItsDeadline()
    {
        waitUntil(QDeadlineTimer(300));
        VERIFY_LASTED(m_timer, 300);
    }

    void waitWithoutAConditionServesEvents()
    {
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(20);
        waitUntil(QDeadlineTimer(500));
        QVERIFY2(ticks >= 5 && ticks <= 25, qPrintable(QString::number(ticks)));
        VERIFY_LASTED(m_timer, 500);
    }

    void shortDeadlineIsNotMissed()
    {
        QVERIFY(!waitUntil(QDeadlineTimer(1), never));
        VERIFY_LASTED(m_timer, 1);
    }

    void timerWakesTheWait()
    {
        bool fired = false;
        QTimer::singleShot(100, this, [&fired] { fired = true; });
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&fired] { return fired; }));
        VERIFY_LASTED(m_timer, 90); // a coarse timer may be 5 % early
    }

    void postedEventWakesTheWait()
    {
        bool called = false;
        QMetaObject::invokeMethod(
            this, [&called] { called = true; }, Qt::QueuedConnection);
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&called] { return called; }));
        VERIFY_LASTED(m_timer, 0);
    }

    void eventFromAnotherThreadWakesTheWait()
    {
        bool called = false; // set in this thread, by the event
        std::thread poster([this, &called] {
            std::this_thread::sleep_for(100ms);
            QMetaObject::invokeMethod(
                this, [&called] { called = true; }, Qt::QueuedConnection);
        });
        const bool woken = waitUntil(QDeadlineTimer(5s), [&called] { return called; });
        poster.join();
        QVERIFY(woken);
        VERIFY_LASTED(m_timer, 100);
    }

    void waitForeverEndsWithItsCondition()
    {
        bool fired = false;
        QTimer::singleShot(200, this, [&fired] { fired = true; });
        QVERIFY(waitUntil(QDeadlineTimer(QDeadlineTimer::Forever), [&fired] { return fired; }));
        VERIFY_LASTED(m_timer, 190);
    }

    void deadlineBeyondTheRangeOfTimersIsNoDeadlineYet()
    {
        bool fired = false;
        QTimer::singleShot(200, this, [&fired] { fired = true; });
        // More milliseconds than fit into the interval of a QTimer, which Qt would log.
        const LogCapture log;
        QVERIFY(waitUntil(QDeadlineTimer(24h * 30), [&fired] { return fired; }));
        VERIFY_LASTED(m_timer, 190);
        QCOMPARE(log.lines(), QStringList());
    }

    void conditionIsTestedAfterEveryTurn()
    {
        int events = 0;
        int seen = -1;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&events] { ++events; });
        ticker.start(20);
        QVERIFY(waitUntil(QDeadlineTimer(5s), [&events, &seen] {
            seen = events;
            return events == 3;
        }));
        QCOMPARE(seen, 3);
        QCOMPARE(events, 3);
    }

    void innerWaitMayEndFirst()
    {
        bool innerDone = false;
        QTimer::singleShot(100, this, [&innerDone] {
            waitUntil(QDeadlineTimer(100));
            innerDone = true;
        });
        QVERIFY(!waitUntil(QDeadlineTimer(600), never));
        QVERIFY(innerDone);
        VERIFY_LASTED(m_timer, 600);
    }

    void outerDeadlineThatPassesInsideAnInnerWaitEndsTheOuterRightAfterIt()
    {
        bool innerResult = true;
        qint64 innerEnd = 0;
        QTimer::singleShot(100, this, [this, &innerResult, &innerEnd] {
            innerResult = waitUntil(QDeadlineTimer(700), never);
            innerEnd = m_timer.elapsed();
        });
        QVERIFY(!waitUntil(QDeadlineTimer(300), never));
        QVERIFY(!innerResult);
        QVERIFY(innerEnd >= 790);
        QVERIFY(m_timer.elapsed() - innerEnd < 200);
    }

    void outerConditionThatComesTrueInsideAnInnerWaitCountsAfterIt()
    {
        bool outerIsDone = false;
        bool innerIsDone = false;
        QTimer::singleShot(50, this, [&innerIsDone] {
            waitUntil(QDeadlineTimer(500));
            innerIsDone = true;
        });
        QTimer::singleShot(200, this, [&outerIsDone] { outerIsDone = true; });
        QVERIFY(waitUntil(QDeadlineTimer(QDeadlineTimer::Forever),
                          [&outerIsDone] { return outerIsDone; }));
        QVERIFY(innerIsDone);
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
        QVERIFY(!waitUntil(QDeadlineTimer(2s), never));
        const qint64 used = processorTime() - before;
        QVERIFY2(used < 50, qPrintable(QString::number(used)));
    }

    void outerDeadlineThatHasPassedDoesNotMakeAnInnerWaitTurnInCircles()
    {
        int tests = 0;
        QTimer::singleShot(10, this, [&tests] {
            waitUntil(QDeadlineTimer(1s), [&tests] {
                ++tests;
                return false;
            });
        });
        QVERIFY(!waitUntil(QDeadlineTimer(20), never));
        QVERIFY(m_timer.elapsed() >= 1'000);
        QVERIFY2(tests <= 5, qPrintable(QString::number(tests)));
    }

    void waitsInARowLeaveNothingBehind()
    {
        for (int i = 0; i < 100; ++i)
            QVERIFY(!waitUntil(QDeadlineTimer(1), never));
        // A forgotten alarm would end the sleep of this one and test its condition again.
        int tests = 0;
        QVERIFY(!waitUntil(QDeadlineTimer(300), [&tests] {
            ++tests;
            return false;
        }));
        QVERIFY2(tests <= 5, qPrintable(QString::number(tests)));
    }
};

QTEST_GUILESS_MAIN(EventWait)
#include "tst_eventwait.moc"
