#include "descriptorbudget.h"

#include <QtTest/QtTest>

#include <sys/resource.h>
#include <unistd.h>

namespace {

/// Sets the limit of descriptors while it lives.
class Limit
{
public:
    explicit Limit(int descriptors)
    {
        ::getrlimit(RLIMIT_NOFILE, &m_usual);
        const rlimit changed{static_cast<rlim_t>(descriptors), m_usual.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &changed) != 0)
            qFatal("cannot set the limit");
    }
    ~Limit() { ::setrlimit(RLIMIT_NOFILE, &m_usual); }

private:
    rlimit m_usual{};
    Q_DISABLE_COPY(Limit)
};

} // namespace

/// Whether enough descriptors are left above a number that the kernel gave.
class TestDescriptorBudget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void numberIsComparedWithTheLimitOfTheMoment()
    {
        for (const int limit : {100, 200}) {
            const Limit few(limit);
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
        const Limit few(own + 51);
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
