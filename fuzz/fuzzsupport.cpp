#include "fuzzsupport.h"

#include <QtCore/QCoreApplication>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

void fuzz::fail(const char *what, const QByteArray &details)
{
    std::fprintf(stderr, "%s\n%s\n", what, details.constData());
    std::abort();
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static const QCoreApplication application(*argc, *argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::run(QByteArray(reinterpret_cast<const char *>(data), static_cast<int>(size)));
    return 0;
}
