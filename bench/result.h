#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <functional>
#include <optional>
#include <stdexcept>

/// A measurement that could not be made although the machine provides what it needs.
class MeasurementFailed : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/// Throws MeasurementFailed with @p text unless @p holds.
void require(bool holds, const char *text);

/// @return the value below which @p fraction of the samples lie (0.5 is the median); the higher one
///         of two when it falls between them.
double quantile(QVector<double> samples, double fraction);
double median(const QVector<double> &samples);

/// What one row has found.
class Result
{
public:
    /// The median of @p samples, without a baseline.
    Result(const QString &unit, const QVector<double> &samples);

    /// The medians of rounds that each measured both, and of their ratios.
    Result(const QString &unit, const QVector<double> &samples, const QVector<double> &baseline);

    /// The same, of so many rounds, each of the baseline first.
    static Result ofTurns(const QString &unit, int rounds,
                          const std::function<double()> &takeBaseline,
                          const std::function<double()> &takeSample);

    /// The bar. A row has one at most; without one it cannot miss. The values are in the row's
    /// unit; the ratio is the measured value divided by the baseline.
    Result &mustBeAtMost(double value);
    Result &mustBeAtMostBaselinePlus(double value); ///< and the remark tells the worst rounds
    /// The same, and the worst round at most the baseline's worst plus @p worst.
    Result &mustBeAtMostBaselinePlus(double value, double worst);
    Result &ratioMustBeAtMost(double value);
    Result &ratioMustBeAtLeast(double value);

    /// @return the row without its number and name.
    QJsonObject json() const;

    QString unit;
    int rounds;
    double measured;
    std::optional<double> baseline;
    std::optional<double> ratio;
    QString remark;

private:
    Result &setBar(bool isMet, const QString &text);

    double m_worst = 0;
    double m_worstBaseline = 0;
    QString m_bar;
    QString m_verdict = QStringLiteral("no bar");
};
