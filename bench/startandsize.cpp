#include "programs.h"
#include "rows.h"

#include <QtCore/QFileInfo>

namespace {

using namespace std::chrono_literals;

constexpr int kStarts = 30;
constexpr int kMemoryRounds = 5;

/// Alone: two at the same time would share pages with each other.
template<typename AnyProgram>
double idleMemoryOf()
{
    const AnyProgram program;
    vpncore::waitUntil(1s);
    return memoryOf(program.pid(), "Pss");
}

} // namespace

Result start()
{
    QVector<double> measured;
    QVector<double> baseline;
    for (int n = 0; n < kStarts; ++n) {
        baseline.append(runRestoreScript());
        measured.append(Daemon().startTime());
    }
    Result result(QStringLiteral("ms"), measured, baseline);
    result.remark = QStringLiteral("worst %1 ms, of the baseline %2 ms")
                        .arg(quantile(measured, 1), 0, 'f', 1)
                        .arg(quantile(baseline, 1), 0, 'f', 1);
    return result.mustBeAtMostBaselinePlus(50);
}

Result idleMemory()
{
    QVector<double> measured;
    QVector<double> baseline;
    for (int n = 0; n < kMemoryRounds; ++n) {
        measured.append(idleMemoryOf<Daemon>());
        baseline.append(idleMemoryOf<MinimalHost>());
    }
    return Result(QStringLiteral("KiB"), measured, baseline).ratioMustBeAtMost(1.2);
}

Result binarySize()
{
    const QFileInfo binary(QStringLiteral(TALVEX_STRIPPED_DAEMON));
    require(binary.size() > 0, "there is no stripped binary");
    return Result(QStringLiteral("KiB"), {static_cast<double>(binary.size()) / 1024})
        .mustBeAtMost(1024);
}
