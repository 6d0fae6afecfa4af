#include "result.h"

#include <algorithm>
#include <cmath>

void require(bool holds, const char *text)
{
    if (!holds)
        throw MeasurementFailed(text);
}

double quantile(QVector<double> samples, double fraction)
{
    if (samples.isEmpty())
        return std::nan("");
    std::sort(samples.begin(), samples.end());
    const int index = static_cast<int>(std::ceil(fraction * samples.size())) - 1;
    return samples.at(std::clamp(index, 0, samples.size() - 1));
}

double median(const QVector<double> &samples)
{
    return quantile(samples, 0.5);
}

Result::Result(const QString &unit_, const QVector<double> &samples)
    : unit(unit_)
    , rounds(samples.size())
    , measured(median(samples))
{
}

Result::Result(const QString &unit_, const QVector<double> &samples,
               const QVector<double> &baselineSamples)
    : Result(unit_, samples)
{
    QVector<double> ratios;
    for (int n = 0; n < samples.size(); ++n)
        ratios.append(samples.at(n) / baselineSamples.at(n));
    m_worst = quantile(samples, 1);
    m_worstBaseline = quantile(baselineSamples, 1);
    baseline = median(baselineSamples);
    ratio = median(ratios);
}

Result Result::ofTurns(const QString &unit, int rounds, const std::function<double()> &takeBaseline,
                       const std::function<double()> &takeSample)
{
    QVector<double> samples;
    QVector<double> baseline;
    for (int n = 0; n < rounds; ++n) {
        baseline.append(takeBaseline());
        samples.append(takeSample());
    }
    return Result(unit, samples, baseline);
}

// The comparisons are written so that a value that is not a number meets no bar.

Result &Result::mustBeAtMost(double value)
{
    return setBar(measured <= value, QStringLiteral("<= %1 %2").arg(value).arg(unit));
}

Result &Result::mustBeAtMostBaselinePlus(double value)
{
    remark = QStringLiteral("worst %1 %3, of the baseline %2 %3")
                 .arg(m_worst, 0, 'f', 1)
                 .arg(m_worstBaseline, 0, 'f', 1)
                 .arg(unit);
    return setBar(measured <= baseline.value() + value,
                  QStringLiteral("<= baseline + %1 %2").arg(value).arg(unit));
}

Result &Result::mustBeAtMostBaselinePlus(double value, double worst)
{
    mustBeAtMostBaselinePlus(value);
    return setBar(
        measured <= baseline.value() + value && m_worst <= m_worstBaseline + worst,
        QStringLiteral("<= baseline + %1 %3, worst + %2 %3").arg(value).arg(worst).arg(unit));
}

Result &Result::ratioMustBeAtMost(double value)
{
    return setBar(ratio.value() <= value, QStringLiteral("ratio <= %1").arg(value));
}

Result &Result::ratioMustBeAtLeast(double value)
{
    return setBar(ratio.value() >= value, QStringLiteral("ratio >= %1").arg(value));
}

Result &Result::setBar(bool isMet, const QString &text)
{
    m_bar = text;
    m_verdict = isMet ? QStringLiteral("met") : QStringLiteral("MISSED");
    return *this;
}

QJsonObject Result::json() const
{
    QJsonObject row{{QStringLiteral("verdict"), m_verdict}, {QStringLiteral("rounds"), rounds},
                    {QStringLiteral("unit"), unit},         {QStringLiteral("measured"), measured},
                    {QStringLiteral("bar"), m_bar},         {QStringLiteral("remark"), remark}};
    if (baseline)
        row.insert(QStringLiteral("baseline"), *baseline);
    if (ratio)
        row.insert(QStringLiteral("ratio"), *ratio);
    return row;
}
