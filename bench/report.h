#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <optional>

/// @return the value below which @p fraction of the samples lie (0.5 is the median); the higher one
///         of two when it falls between them.
double quantile(QVector<double> samples, double fraction);

/// @return the middle of the samples.
double median(const QVector<double> &samples);

/// What a measured value must keep to.
class Bar
{
public:
    /// No bar: the row tells, and cannot miss.
    static Bar none();
    static Bar atMost(double value);
    /// Measured value divided by baseline.
    static Bar ratioAtMost(double ratio);
    static Bar ratioAtLeast(double ratio);
    /// The baseline and @p more, in the row's unit.
    static Bar baselinePlus(double more);

    bool isMet(double measured, std::optional<double> baseline, std::optional<double> ratio) const;
    bool exists() const { return m_kind != Kind::None; }
    QString text(const QString &unit) const;

private:
    enum class Kind { None, AtMost, RatioAtMost, RatioAtLeast, BaselinePlus };

    Bar(Kind kind, double value)
        : m_kind(kind)
        , m_value(value)
    {
    }

    Kind m_kind;
    double m_value;
};

/// What one row has found.
struct Result
{
    QString unit;
    int rounds = 1;
    double measured = 0;
    std::optional<double> baseline;
    /// Of measured value to baseline. Where a round holds both, the median of the rounds' ratios.
    std::optional<double> ratio;
    Bar bar = Bar::none();
    QString remark;
};

/// @return the result of rounds that each measured both, one after the other.
Result pairedResult(const QString &unit, const QVector<double> &measured,
                    const QVector<double> &baseline, Bar bar);

/// The table of a run.
class Report
{
public:
    void setHeader(const QJsonObject &machine, const QStringList &libraries);

    void add(const QString &number, const QString &what, const Result &result);
    /// The machine cannot do it.
    void addNotMeasured(const QString &number, const QString &what, const QString &reason);
    /// The measurement itself went wrong, which counts as a missed bar.
    void addFailed(const QString &number, const QString &what, const QString &reason);

    bool isMissed() const;
    bool isComplete() const;
    QString table() const;
    QByteArray json() const;

private:
    enum class Verdict { Met, Missed, Told, NotMeasured, Failed };

    struct Row
    {
        QString number;
        QString what;
        Verdict verdict;
        Result result;
        QString reason;
    };

    static QString name(Verdict verdict);
    static QStringList cells(const Row &row);

    QJsonObject m_machine;
    QStringList m_libraries;
    QVector<Row> m_rows;
};
