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

#include <cstdio>

namespace {

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

QJsonObject resultOf(const Row &row, const QString &whyNot)
{
    if (!whyNot.isEmpty())
        return withoutResult("not measured", whyNot);
    try {
        return row.measure().json();
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
    for (const Row &row : waitingRows() + tunnelRows() + remoteCallRows() + startAndSizeRows()) {
        const QLatin1String number(row.number);
        if (!isAll && numbers.removeAll(number) == 0)
            continue;
        std::fprintf(stderr, "bench: %s, %s\n", row.number, row.what);
        const QString reasons[] = {QString(), whyNoRoot, whyNoTunnel};
        QJsonObject object = resultOf(row, reasons[static_cast<int>(row.needs)]);
        object.insert(QStringLiteral("number"), number);
        object.insert(QStringLiteral("what"), QLatin1String(row.what));
        print(object);
    }
    if (!numbers.isEmpty())
        std::fprintf(stderr, "bench: no such row: %s\n", qUtf8Printable(numbers.first()));
    return numbers.isEmpty() ? 0 : 2;
}
