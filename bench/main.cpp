/// Measures the daemon against its bars; see docs/performance.md. Run by scripts/bench.

#include "measures.h"
#include "rows.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QSysInfo>

#include <cstdio>
#include <thread>

namespace {

enum ExitCode { AllMet = 0, BarMissed = 1, UsageError = 2, NotAllMeasured = 77 };

const QLatin1String kNotMeasured("not measured"); // the machine cannot do it
const QLatin1String kFailed("FAILED"); // the measurement went wrong, which counts as a missed bar

enum class Needs { Nothing, PrivateRoot, Tunnel };

struct Measurement
{
    const char *number;
    const char *what;
    Needs needs;
    Result (*measure)();
};

constexpr Measurement kMeasurements[] = {
    {"1", "processor time in a connect to a silent server, 10 s", Needs::PrivateRoot,
     processorTimeOfSilentConnect},
    {"2a", "processor time while openvpn ignores SIGTERM, 15 s", Needs::PrivateRoot,
     processorTimeOfIgnoredSigterm},
    {"2b", "processor time of runProcess on \"sleep 5\"", Needs::Nothing,
     processorTimeOfRunProcess},
    {"3a", "wake-ups without a client", Needs::PrivateRoot, wakeUpsWithoutClient},
    {"3b", "wake-ups with a tunnel and heartbeats", Needs::Tunnel, wakeUpsWithTunnel},
    {"4a", "connect over UDP, command to answer", Needs::Tunnel, udpConnect},
    {"4b", "connect over TCP, command to answer", Needs::Tunnel, tcpConnect},
    {"5a", "disconnect, openvpn ending at once", Needs::PrivateRoot, disconnectAtOnce},
    {"5b", "disconnect, real openvpn", Needs::Tunnel, disconnectReal},
    {"6a", "heartbeats", Needs::PrivateRoot, heartbeats},
    {"6b", "commands without effect", Needs::PrivateRoot, commandsWithoutEffect},
    {"6c", "the same, baseline without reading them", Needs::PrivateRoot,
     commandsWithoutEffectUnread},
    {"7a", "creating endpoints", Needs::PrivateRoot, endpointCreation},
    {"7b", "memory of an endpoint, not connected", Needs::PrivateRoot, idleEndpointMemory},
    {"7c", "memory of an endpoint, connected", Needs::PrivateRoot, connectedEndpointMemory},
    {"8", "exec to listening", Needs::PrivateRoot, start},
    {"9a", "memory when idle (PSS)", Needs::PrivateRoot, idleMemory},
    {"9b", "size of the stripped binary", Needs::Nothing, binarySize},
    {"10", "threads", Needs::PrivateRoot, threads},
};

QString lineOf(const QString &path, const QString &pattern)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QRegularExpression(pattern, QRegularExpression::MultilineOption)
        .match(QString::fromUtf8(file.readAll()))
        .captured(1);
}

QString outputOf(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished();
    return QString::fromUtf8(process.readAllStandardOutput());
}

QJsonObject machine()
{
    return {
        {QStringLiteral("processor"),
         QStringLiteral("%1, %2 cores")
             .arg(lineOf(QStringLiteral("/proc/cpuinfo"), QStringLiteral("^model name\\s*: (.*)$")))
             .arg(std::thread::hardware_concurrency())},
        {QStringLiteral("memory"),
         lineOf(QStringLiteral("/proc/meminfo"), QStringLiteral("^MemTotal:\\s*(.*)$"))},
        {QStringLiteral("system"),
         QSysInfo::kernelType() + QLatin1Char(' ') + QSysInfo::kernelVersion()},
        {QStringLiteral("Qt"), QString::fromLatin1(qVersion())},
        {QStringLiteral("compiler"), QStringLiteral(__VERSION__)},
        {QStringLiteral("openvpn"),
         outputOf(QStringLiteral("/usr/sbin/openvpn"), {QStringLiteral("--version")})
             .section(QLatin1Char(' '), 1, 1)},
        {QStringLiteral("date"), QDateTime::currentDateTimeUtc().toString(Qt::ISODate)},
        {QStringLiteral("load before"),
         lineOf(QStringLiteral("/proc/loadavg"), QStringLiteral("^(\\S+)"))},
    };
}

/// @return the libraries that the daemon is linked with, and those that they bring along.
QStringList libraries()
{
    QStringList names;
    const QString output =
        outputOf(QStringLiteral("ldd"), {QStringLiteral(TALVEX_STRIPPED_DAEMON)});
    for (const QString &line : output.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        names.append(line.trimmed().section(QLatin1Char(' '), 0, 0));
    return names;
}

/// What the machine cannot do, empty where it can.
struct Missing
{
    QString privateRoot;
    QString tunnel;

    QString reasonAgainst(Needs needs) const
    {
        if (needs == Needs::Nothing)
            return {};
        return needs == Needs::Tunnel && privateRoot.isEmpty() ? tunnel : privateRoot;
    }
};

QStringList unknownNumbers(QStringList numbers)
{
    for (const Measurement &measurement : kMeasurements)
        numbers.removeAll(QLatin1String(measurement.number));
    return numbers;
}

/// @return the row as the JSON output has it.
QJsonObject measured(const Measurement &measurement, const Missing &missing)
{
    std::fprintf(stderr, "bench: %s, %s\n", measurement.number, measurement.what);
    QJsonObject row;
    const QString reason = missing.reasonAgainst(measurement.needs);
    if (!reason.isEmpty()) {
        row = {{QStringLiteral("verdict"), kNotMeasured}, {QStringLiteral("reason"), reason}};
    } else {
        try {
            row = measurement.measure().json();
        } catch (const MeasurementFailed &failure) {
            row = {{QStringLiteral("verdict"), kFailed},
                   {QStringLiteral("reason"), QString::fromUtf8(failure.what())}};
        }
    }
    row.insert(QStringLiteral("number"), QLatin1String(measurement.number));
    row.insert(QStringLiteral("what"), QLatin1String(measurement.what));
    return row;
}

QJsonArray measure(const QStringList &numbers, const Missing &missing)
{
    QJsonArray rows;
    for (const Measurement &measurement : kMeasurements) {
        if (numbers.isEmpty() || numbers.contains(QLatin1String(measurement.number)))
            rows.append(measured(measurement, missing));
    }
    return rows;
}

ExitCode exitCodeOf(const QJsonArray &rows)
{
    ExitCode code = AllMet;
    for (const QJsonValue &row : rows) {
        const QString verdict = row.toObject().value(QLatin1String("verdict")).toString();
        if (verdict == QLatin1String("MISSED") || verdict == kFailed)
            return BarMissed;
        if (verdict == kNotMeasured)
            code = NotAllMeasured;
    }
    return code;
}

} // namespace

int main(int argc, char **argv)
{
    // The event dispatcher that Qt takes on macOS, here and in everything that is started: GLib's,
    // the default on Linux, looks through all descriptors whenever one is added.
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication application(argc, argv);
    // For the endpoints of row 7, here and in the daemon. Where it is refused, they fail.
    measures::allowDescriptors(8192);
    QCommandLineParser parser;
    const QCommandLineOption json(QStringLiteral("json"), {}, QStringLiteral("file"));
    const QCommandLineOption row(QStringLiteral("row"), {}, QStringLiteral("number"));
    const QCommandLineOption noRoot(QStringLiteral("without-private-root"), {},
                                    QStringLiteral("reason"));
    const QCommandLineOption noTunnel(QStringLiteral("without-tunnel"), {},
                                      QStringLiteral("reason"));
    parser.addOptions({json, row, noRoot, noTunnel});
    parser.process(application);

    const QStringList unknown = unknownNumbers(parser.values(row));
    if (!unknown.isEmpty()) {
        std::fprintf(stderr, "bench: no such row: %s\n", qUtf8Printable(unknown.first()));
        return UsageError;
    }

    const QJsonObject machineBefore = machine();
    const QJsonArray rows =
        measure(parser.values(row), {parser.value(noRoot), parser.value(noTunnel)});
    const QJsonObject run{{QStringLiteral("machine"), machineBefore},
                          {QStringLiteral("libraries"), QJsonArray::fromStringList(libraries())},
                          {QStringLiteral("rows"), rows}};
    std::fputs(qUtf8Printable(tableOf(run)), stdout);
    if (parser.isSet(json)) {
        QFile file(parser.value(json));
        const QByteArray text = QJsonDocument(run).toJson();
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
            std::fprintf(stderr, "bench: cannot write %s\n", qUtf8Printable(file.fileName()));
            return UsageError;
        }
    }
    return exitCodeOf(rows);
}
