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

    /// The one before may have gone into the reserve while lower numbers became free again.
    void tunnelFindsItsReserveUntouched_data()
    {
        QTest::addColumn<int>("taken");
        QTest::addColumn<bool>("isLeft");
        QTest::newRow("the last before the reserve") << 79 << true;
        QTest::newRow("the first of the reserve") << 80 << false;
        QTest::newRow("the last of the reserve") << 99 << false;
    }

    void tunnelFindsItsReserveUntouched()
    {
        QFETCH(int, taken);
        QFETCH(bool, isLeft);
        rlimit usual{};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &usual), 0);
        const rlimit changed{100, usual.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &changed), 0);
        const int low = ::dup(STDERR_FILENO);
        QCOMPARE(::dup2(low, taken), taken);
        const bool found = vpncore::leavesTunnelReserve(low);
        ::close(taken);
        const bool foundAfterwards = vpncore::leavesTunnelReserve(low);
        ::close(low);
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &usual), 0);
        QCOMPARE(found, isLeft);
        QVERIFY(foundAfterwards);
    }
};

QTEST_GUILESS_MAIN(TestDescriptorBudget)
#include "tst_descriptorbudget.moc"
