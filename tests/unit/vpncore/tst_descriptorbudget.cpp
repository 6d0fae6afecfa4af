#include "descriptorbudget.h"

#include "measures.h"

#include <QtTest/QtTest>

#include <unistd.h>

/// Whether enough descriptors are left above a number that the kernel gave.
class TestDescriptorBudget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void numberIsComparedWithTheLimitOfTheMoment()
    {
        for (const int left : {100, 200}) {
            const measures::FewDescriptors few(left);
            const auto limit = static_cast<int>(::sysconf(_SC_OPEN_MAX));
            for (const int reserve : {0, 20, 32}) {
                QVERIFY(vpncore::leavesDescriptors(limit - reserve - 1, reserve));
                QVERIFY(!vpncore::leavesDescriptors(limit - reserve, reserve));
            }
        }
    }

    /// Fifty above the own one, of which some are taken, in no order.
    void tunnelLeavesTwentyThatAreFree()
    {
        const int own = ::dup(STDERR_FILENO);
        const measures::FewDescriptors few(50);
        const auto number = [own](int n) { return own + 1 + n * 7 % 50; };
        for (int taken = 0; taken < 31; ++taken) {
            QVERIFY2(vpncore::leavesTunnelReserve(own), qPrintable(QString::number(taken)));
            QVERIFY(::dup2(own, number(taken)) >= 0);
        }
        QVERIFY(!vpncore::leavesTunnelReserve(own)); // 19 are free
        for (int taken = 0; taken < 31; ++taken)
            ::close(number(taken));
        ::close(own);
    }
};

QTEST_GUILESS_MAIN(TestDescriptorBudget)
#include "tst_descriptorbudget.moc"
