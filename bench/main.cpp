/// Measures the daemon against its bars. For scripts/bench, which makes a table of what this
/// prints: an object about the machine, then one object a row.
///
///     talvexbench WHY-NO-PRIVATE-ROOT WHY-NO-TUNNEL [ROW]...
///
/// The first two arguments are empty where the machine can do it. Ends with status 2 when there is
/// no such row.

#include "rows.h"

#include "measures.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonDocument>
#include <QtCore/QStringList>

#include <algorithm>
#include <cstdio>

namespace {

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

void print(const QJsonObject &object)
{
    std::puts(QJsonDocument(object).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
}

QJsonObject withoutResult(const char *verdict, const QString &reason)
{
    return {{QStringLiteral("verdict"), QLatin1String(verdict)},
            {QStringLiteral("reason"), reason}};
}

QJsonObject rowOf(const Measurement &measurement, const QString &whyNot)
{
    if (!whyNot.isEmpty())
        return withoutResult("not measured", whyNot);
    try {
        return measurement.measure().json();
    } catch (const MeasurementFailed &failure) {
        return withoutResult("FAILED", QString::fromUtf8(failure.what()));
    }
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

    const QStringList arguments = QCoreApplication::arguments();
    const QString whyNoRoot = arguments.value(1);
    const QString whyNoTunnel = whyNoRoot.isEmpty() ? arguments.value(2) : whyNoRoot;
    QStringList numbers = arguments.mid(3);
    const bool isAll = numbers.isEmpty();

    print({{QStringLiteral("Qt"), QLatin1String(qVersion())},
           {QStringLiteral("compiler"), QStringLiteral(__VERSION__)}});
    for (const Measurement &measurement : kMeasurements) {
        const QLatin1String number(measurement.number);
        if (!isAll && numbers.removeAll(number) == 0)
            continue;
        std::fprintf(stderr, "bench: %s, %s\n", measurement.number, measurement.what);
        const QString reasons[] = {QString(), whyNoRoot, whyNoTunnel};
        QJsonObject row = rowOf(measurement, reasons[static_cast<int>(measurement.needs)]);
        row.insert(QStringLiteral("number"), number);
        row.insert(QStringLiteral("what"), QLatin1String(measurement.what));
        print(row);
    }
    if (!numbers.isEmpty())
        std::fprintf(stderr, "bench: no such row: %s\n", qUtf8Printable(numbers.first()));
    return numbers.isEmpty() ? 0 : 2;
}
