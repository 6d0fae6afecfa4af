#include "report.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

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

QString withUnit(double value, const QString &unit)
{
    return unit.isEmpty() ? number(value) : number(value) + QLatin1Char(' ') + unit;
}

QString orDash(const QString &text)
{
    return text.isEmpty() ? QStringLiteral("-") : text;
}

} // namespace

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

Bar Bar::none()
{
    return {Kind::None, 0};
}

Bar Bar::atMost(double value)
{
    return {Kind::AtMost, value};
}

Bar Bar::ratioAtMost(double ratio)
{
    return {Kind::RatioAtMost, ratio};
}

Bar Bar::ratioAtLeast(double ratio)
{
    return {Kind::RatioAtLeast, ratio};
}

Bar Bar::baselinePlus(double more)
{
    return {Kind::BaselinePlus, more};
}

bool Bar::isMet(double measured, std::optional<double> baseline, std::optional<double> ratio) const
{
    // Written so that a value that is not a number meets no bar.
    switch (m_kind) {
    case Kind::None:
        return true;
    case Kind::AtMost:
        return measured <= m_value;
    case Kind::RatioAtMost:
        return ratio && *ratio <= m_value;
    case Kind::RatioAtLeast:
        return ratio && *ratio >= m_value;
    case Kind::BaselinePlus:
        return baseline && measured <= *baseline + m_value;
    }
    return false;
}

QString Bar::text(const QString &unit) const
{
    switch (m_kind) {
    case Kind::None:
        break;
    case Kind::AtMost:
        return QStringLiteral("<= ") + withUnit(m_value, unit);
    case Kind::RatioAtMost:
        return QStringLiteral("ratio <= ") + number(m_value);
    case Kind::RatioAtLeast:
        return QStringLiteral("ratio >= ") + number(m_value);
    case Kind::BaselinePlus:
        return QStringLiteral("<= baseline + ") + withUnit(m_value, unit);
    }
    return {};
}

Result pairedResult(const QString &unit, const QVector<double> &measured,
                    const QVector<double> &baseline, Bar bar)
{
    QVector<double> ratios;
    for (int n = 0; n < measured.size(); ++n)
        ratios.append(measured.at(n) / baseline.at(n));
    return {unit, measured.size(), median(measured), median(baseline), median(ratios), bar, {}};
}

void Report::setHeader(const QJsonObject &machine, const QStringList &libraries)
{
    m_machine = machine;
    m_libraries = libraries;
}

void Report::add(const QString &number, const QString &what, const Result &result)
{
    Verdict verdict = Verdict::Told;
    if (result.bar.exists())
        verdict = result.bar.isMet(result.measured, result.baseline, result.ratio)
            ? Verdict::Met
            : Verdict::Missed;
    m_rows.append({number, what, verdict, result, {}});
}

void Report::addNotMeasured(const QString &number, const QString &what, const QString &reason)
{
    m_rows.append({number, what, Verdict::NotMeasured, {}, reason});
}

void Report::addFailed(const QString &number, const QString &what, const QString &reason)
{
    m_rows.append({number, what, Verdict::Failed, {}, reason});
}

bool Report::isMissed() const
{
    return std::any_of(m_rows.begin(), m_rows.end(), [](const Row &row) {
        return row.verdict == Verdict::Missed || row.verdict == Verdict::Failed;
    });
}

bool Report::isComplete() const
{
    return std::none_of(m_rows.begin(), m_rows.end(),
                        [](const Row &row) { return row.verdict == Verdict::NotMeasured; });
}

QString Report::name(Verdict verdict)
{
    switch (verdict) {
    case Verdict::Met:
        return QStringLiteral("met");
    case Verdict::Missed:
        return QStringLiteral("MISSED");
    case Verdict::Told:
        return QStringLiteral("no bar");
    case Verdict::NotMeasured:
        return QStringLiteral("not measured");
    case Verdict::Failed:
        return QStringLiteral("FAILED");
    }
    return {};
}

QStringList Report::cells(const Row &row)
{
    if (row.verdict == Verdict::NotMeasured || row.verdict == Verdict::Failed)
        return {row.number,          row.what,
                QStringLiteral("-"), QStringLiteral("-"),
                QStringLiteral("-"), QStringLiteral("-"),
                QStringLiteral("-"), name(row.verdict),
                row.reason};
    const Result &result = row.result;
    return {row.number,
            row.what,
            QString::number(result.rounds),
            withUnit(result.measured, result.unit),
            result.baseline ? withUnit(*result.baseline, result.unit) : QStringLiteral("-"),
            result.ratio ? number(*result.ratio) : QStringLiteral("-"),
            orDash(result.bar.text(result.unit)),
            name(row.verdict),
            result.remark};
}

QString Report::table() const
{
    QString text;
    for (const QString &key : m_machine.keys())
        text += key + QStringLiteral(": ") + m_machine.value(key).toVariant().toString()
            + QLatin1Char('\n');
    text += QStringLiteral("ldd of the daemon:\n");
    for (const QString &library : m_libraries)
        text += QStringLiteral("    ") + library + QLatin1Char('\n');

    QVector<QStringList> lines = {
        {QStringLiteral("#"), QStringLiteral("what"), QStringLiteral("rounds"),
         QStringLiteral("measured"), QStringLiteral("baseline"), QStringLiteral("ratio"),
         QStringLiteral("bar"), QStringLiteral("verdict"), QStringLiteral("remark")}};
    for (const Row &row : m_rows)
        lines.append(cells(row));

    QVector<int> widths(lines.first().size());
    for (const QStringList &line : lines) {
        for (int column = 0; column < line.size(); ++column)
            widths[column] = std::max(widths.at(column), line.at(column).size());
    }
    text += QLatin1Char('\n');
    for (int n = 0; n < lines.size(); ++n) {
        QStringList padded;
        QStringList rule;
        for (int column = 0; column < widths.size(); ++column) {
            padded.append(lines.at(n).at(column).leftJustified(widths.at(column)));
            rule.append(QString(widths.at(column), QLatin1Char('-')));
        }
        text += QStringLiteral("| ") + padded.join(QStringLiteral(" | ")) + QStringLiteral(" |\n");
        if (n == 0)
            text +=
                QStringLiteral("| ") + rule.join(QStringLiteral(" | ")) + QStringLiteral(" |\n");
    }
    return text;
}

QByteArray Report::json() const
{
    QJsonArray rows;
    for (const Row &row : m_rows) {
        QJsonObject object{{QStringLiteral("number"), row.number},
                           {QStringLiteral("what"), row.what},
                           {QStringLiteral("verdict"), name(row.verdict)}};
        if (row.verdict == Verdict::NotMeasured || row.verdict == Verdict::Failed) {
            object.insert(QStringLiteral("reason"), row.reason);
        } else {
            const Result &result = row.result;
            object.insert(QStringLiteral("rounds"), result.rounds);
            object.insert(QStringLiteral("unit"), result.unit);
            object.insert(QStringLiteral("measured"), result.measured);
            if (result.baseline)
                object.insert(QStringLiteral("baseline"), *result.baseline);
            if (result.ratio)
                object.insert(QStringLiteral("ratio"), *result.ratio);
            object.insert(QStringLiteral("bar"), result.bar.text(result.unit));
            object.insert(QStringLiteral("remark"), result.remark);
        }
        rows.append(object);
    }
    return QJsonDocument(
               QJsonObject{{QStringLiteral("machine"), m_machine},
                           {QStringLiteral("libraries"), QJsonArray::fromStringList(m_libraries)},
                           {QStringLiteral("rows"), rows}})
        .toJson();
}
