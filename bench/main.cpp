/// Measures the daemon. For scripts/bench, which knows what each row must come up to.
///
///     talvexbench [ROW]
///
/// Prints an object with the samples of the row, or without one an object about the build. Ends
/// with status 1 and the reason on standard error when the row cannot be measured.

#include "measures.h"
#include "subjects.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <cstdio>
#include <stdexcept>

namespace {

QJsonObject measure(const char *number)
{
    for (const Rows &rows : {processRows(), tunnelRows(), remoteCallRows()}) {
        const auto row = rows.find(number);
        if (row == rows.end())
            continue;
        const Measurement found = row->second();
        return {{"samples", found.samples}, {"baseline", found.baseline}, {"remark", found.remark}};
    }
    throw std::invalid_argument("there is no such row");
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
    try {
        const QJsonObject object = argc > 1
            ? measure(argv[1])
            : QJsonObject{{"Qt", QLatin1String(qVersion())},
                          {"compiler", QStringLiteral(__VERSION__)}};
        std::puts(QJsonDocument(object).toJson(QJsonDocument::Compact).constData());
        return 0;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
