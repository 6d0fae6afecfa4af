#include "result.h"

#include <QtCore/QJsonArray>

#include <algorithm>
#include <cmath>

namespace {

/// Three significant digits, but never less than whole numbers.
QString number(double value)
{
    const double size = std::abs(value);
    const int decimals = size >= 100 || value == std::floor(value) ? 0
        : size >= 10                                               ? 1
        : size >= 1                                                ? 2
        : size >= 0.01                                             ? 3
                                                                   : 5;
    return QString::number(value, 'f', decimals);
}

/// @return the text or number of a row, "-" when the row has none.
QString cell(const QJsonObject &row, const QString &key, const QString &unit = {})
{
    const QJsonValue value = row.value(key);
    const QString text = value.isDouble() ? number(value.toDouble()) + unit : value.toString();
    return text.isEmpty() && key != QLatin1String("remark") ? QStringLiteral("-") : text;
}

QStringList cells(const QJsonObject &row)
{
    const QString unit = QLatin1Char(' ') + row.value(QLatin1String("unit")).toString();
    return {cell(row, QStringLiteral("number")),
            cell(row, QStringLiteral("what")),
            cell(row, QStringLiteral("rounds")),
            cell(row, QStringLiteral("measured"), unit),
            cell(row, QStringLiteral("baseline"), unit),
            cell(row, QStringLiteral("ratio")),
            cell(row, QStringLiteral("bar")),
            cell(row, QStringLiteral("verdict")),
            cell(row,
                 row.contains(QLatin1String("reason")) ? QStringLiteral("reason")
                                                       : QStringLiteral("remark"))};
}

} // namespace

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
    baseline = median(baselineSamples);
    ratio = median(ratios);
}

// The comparisons are written so that a value that is not a number meets no bar.

Result &Result::mustBeAtMost(double value)
{
    return setBar(measured <= value, QStringLiteral("<= %1 %2").arg(number(value), unit));
}

Result &Result::mustBeAtMostBaselinePlus(double value)
{
    return setBar(measured <= baseline.value() + value,
                  QStringLiteral("<= baseline + %1 %2").arg(number(value), unit));
}

Result &Result::ratioMustBeAtMost(double value)
{
    return setBar(ratio.value() <= value, QStringLiteral("ratio <= ") + number(value));
}

Result &Result::ratioMustBeAtLeast(double value)
{
    return setBar(ratio.value() >= value, QStringLiteral("ratio >= ") + number(value));
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

QString tableOf(const QJsonObject &run)
{
    QString text;
    const QJsonObject machine = run.value(QLatin1String("machine")).toObject();
    for (const QString &key : machine.keys())
        text += QStringLiteral("%1: %2\n").arg(key, machine.value(key).toString());
    text += QStringLiteral("ldd of the daemon:\n");
    for (const QJsonValue &library : run.value(QLatin1String("libraries")).toArray())
        text += QStringLiteral("    %1\n").arg(library.toString());

    QVector<QStringList> lines = {
        {QStringLiteral("#"), QStringLiteral("what"), QStringLiteral("rounds"),
         QStringLiteral("measured"), QStringLiteral("baseline"), QStringLiteral("ratio"),
         QStringLiteral("bar"), QStringLiteral("verdict"), QStringLiteral("remark")}};
    lines.append(QStringList()); // the rule below the head
    for (const QJsonValue &row : run.value(QLatin1String("rows")).toArray())
        lines.append(cells(row.toObject()));
    for (int column = 0; column < lines.first().size(); ++column) {
        int width = 0;
        for (const QStringList &line : lines)
            width = std::max(width, line.value(column).size());
        lines[1].append(QString(width, QLatin1Char('-')));
        for (QStringList &line : lines)
            line[column] = line.at(column).leftJustified(width);
    }
    text += QLatin1Char('\n');
    for (const QStringList &line : lines)
        text += QStringLiteral("| %1 |\n").arg(line.join(QStringLiteral(" | ")));
    return text;
}
