#include "descriptorbudget.h"

#include <QtTest/QtTest>

#include <sys/resource.h>
#include <unistd.h>

using vpncore::leavesDescriptors;

/// Whether enough descriptors are left above a number that the kernel gave.
class TestDescriptorBudget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tunnelLeavesTwenty() { QCOMPARE(vpncore::kTunnelReserve, 20); }

    void numberIsComparedWithTheLimitOfTheMoment_data()
    {
        QTest::addColumn<int>("limit");
        QTest::addColumn<int>("descriptor");
        QTest::addColumn<int>("reserve");
        QTest::addColumn<bool>("isLeft");
        QTest::newRow("exactly the reserve") << 100 << 79 << 20 << true;
        QTest::newRow("one less") << 100 << 80 << 20 << false;
        QTest::newRow("another reserve") << 100 << 67 << 32 << true;
        QTest::newRow("one less than another reserve") << 100 << 68 << 32 << false;
        QTest::newRow("another limit") << 200 << 179 << 20 << true;
        QTest::newRow("one less below another limit") << 200 << 180 << 20 << false;
        QTest::newRow("no reserve") << 100 << 99 << 0 << true;
        QTest::newRow("more than the limit") << 100 << 0 << 101 << false;
    }

    void numberIsComparedWithTheLimitOfTheMoment()
    {
        QFETCH(int, limit);
        QFETCH(int, descriptor);
        QFETCH(int, reserve);
        QFETCH(bool, isLeft);
        rlimit usual{};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &usual), 0);
        const rlimit changed{static_cast<rlim_t>(limit), usual.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &changed), 0);
        const bool found = leavesDescriptors(descriptor, reserve);
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &usual), 0);
        QCOMPARE(found, isLeft);
    }

    void tunnelCountsWhatIsFree_data()
    {
        QTest::addColumn<int>("taken");
        QTest::addColumn<bool>("isLeft");
        QTest::newRow("twenty are free") << 30 << true;
        QTest::newRow("one less") << 31 << false;
    }

    /// Fifty above the own one, in no order.
    void tunnelCountsWhatIsFree()
    {
        QFETCH(int, taken);
        QFETCH(bool, isLeft);
        const int own = ::dup(STDERR_FILENO);
        rlimit usual{};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &usual), 0);
        const rlimit changed{static_cast<rlim_t>(own + 51), usual.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &changed), 0);
        for (int number = 0; number < taken; ++number)
            QVERIFY(::dup2(own, own + 1 + number * 7 % 50) >= 0);
        const bool found = vpncore::leavesTunnelReserve(own);
        for (int number = 0; number < taken; ++number)
            ::close(own + 1 + number * 7 % 50);
        QVERIFY(vpncore::leavesTunnelReserve(own));
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &usual), 0);
        ::close(own);
        QCOMPARE(found, isLeft);
    }
};

QTEST_GUILESS_MAIN(TestDescriptorBudget)
#include "tst_descriptorbudget.moc"
