#include "inprocessresults.h"

#include "subject.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QMap>

namespace {

constexpr int kLimitMs = 120'000;

double unitInMilliseconds(const QString &unit)
{
    static const QMap<QString, double> units = {{QStringLiteral("ns"), 1e-6},
                                                {QStringLiteral("us"), 1e-3},
                                                {QStringLiteral("ms"), 1},
                                                {QStringLiteral("s"), 1e3}};
    require(units.contains(unit), "a benchmark has an unknown unit of time");
    return units.value(unit);
}

} // namespace

QVector<double> processorMilliseconds(const QString &program, const QString &benchmark,
                                      int repetitions)
{
    QProcess process;
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(program,
                  {QStringLiteral("--benchmark_filter=^%1/").arg(benchmark),
                   QStringLiteral("--benchmark_repetitions=%1").arg(repetitions),
                   QStringLiteral("--benchmark_format=json")});
    require(process.waitForFinished(kLimitMs) && process.exitCode() == 0,
            "the in-process benchmarks did not run");

    QVector<double> times;
    const QJsonArray runs = QJsonDocument::fromJson(process.readAllStandardOutput())
                                .object()
                                .value(QLatin1String("benchmarks"))
                                .toArray();
    for (const QJsonValue &value : runs) {
        const QJsonObject run = value.toObject();
        require(!run.value(QLatin1String("error_occurred")).toBool(),
                "an in-process benchmark failed");
        if (run.value(QLatin1String("run_type")).toString() == QLatin1String("iteration"))
            times.append(run.value(QLatin1String("cpu_time")).toDouble()
                         * unitInMilliseconds(run.value(QLatin1String("time_unit")).toString()));
    }
    require(times.size() == repetitions, "an in-process benchmark gave no result");
    return times;
}
