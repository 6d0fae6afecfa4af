#include "measurements.h"
#include "session.h"
#include "subject.h"

#include <QtCore/QFileInfo>

namespace {

using namespace std::chrono_literals;

constexpr int kStarts = 30;
constexpr double kStartSlackMs = 50;

constexpr int kMemoryRounds = 5;
constexpr double kMemoryBar = 1.2;
constexpr auto kSettle = 1s;

constexpr double kBinaryBarKiB = 1024;

/// Alone: two at the same time would share pages with each other.
template<typename Program>
double idleMemoryOf()
{
    const Program program;
    vpncore::waitUntil(kSettle);
    return static_cast<double>(program.proportionalMemory());
}

} // namespace

Result start()
{
    QVector<double> measured;
    QVector<double> baseline;
    for (int n = 0; n < kStarts; ++n) {
        baseline.append(session::runRestoreScript());
        measured.append(Daemon().startTime());
    }
    Result result =
        pairedResult(QStringLiteral("ms"), measured, baseline, Bar::baselinePlus(kStartSlackMs));
    result.remark = QStringLiteral("worst %1 ms, of the baseline %2 ms")
                        .arg(quantile(measured, 1), 0, 'f', 1)
                        .arg(quantile(baseline, 1), 0, 'f', 1);
    return result;
}

Result idleMemory()
{
    QVector<double> measured;
    QVector<double> baseline;
    for (int n = 0; n < kMemoryRounds; ++n) {
        measured.append(idleMemoryOf<Daemon>());
        baseline.append(idleMemoryOf<MinimalHost>());
    }
    return pairedResult(QStringLiteral("KiB"), measured, baseline, Bar::ratioAtMost(kMemoryBar));
}

Result binarySize()
{
    const QFileInfo binary(QStringLiteral(TALVEX_STRIPPED_DAEMON));
    require(binary.size() > 0, "there is no stripped binary");
    Result result;
    result.unit = QStringLiteral("KiB");
    result.measured = static_cast<double>(binary.size()) / 1024;
    result.bar = Bar::atMost(kBinaryBarKiB);
    return result;
}
