/// What can be measured inside one process. The driver runs this program and reads its JSON.

#include "ipcserver.h"
#include "macplatform.h"

#include <QtCore/QCoreApplication>

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <memory>

namespace {

constexpr rlim_t kDescriptors = 8192;

bool create(IpcServer &server, int endpoints)
{
    for (int n = 0; n < endpoints; ++n) {
        if (server.createPrivilegedProcess() < 0)
            return false;
    }
    return true;
}

/// A hundred endpoints on top of as many as the argument says.
void createHundredEndpoints(benchmark::State &state)
{
    const int existing = static_cast<int>(state.range(0));
    for ([[maybe_unused]] auto iteration : state) {
        state.PauseTiming();
        auto server = std::make_unique<IpcServer>();
        const bool prepared = create(*server, existing);
        state.ResumeTiming();
        const bool created = create(*server, 100);
        state.PauseTiming();
        if (!prepared || !created)
            state.SkipWithError("an endpoint could not be created");
        server.reset();
        state.ResumeTiming();
    }
}

void runProcessOnSleep(benchmark::State &state)
{
    constexpr int kLimitSeconds = 10;
    for ([[maybe_unused]] auto iteration : state) {
        QString output;
        if (vpncore::MacPlatform::runProcess(QStringLiteral("sleep 5"), kLimitSeconds, output) != 0)
            state.SkipWithError("sleep did not run to its end");
    }
}

} // namespace

// Once each: the processor's time grows with the wait, not with the number of turns.
BENCHMARK(createHundredEndpoints)->Arg(0)->Arg(1900)->Iterations(1)->MeasureProcessCPUTime();
BENCHMARK(runProcessOnSleep)->Iterations(1)->MeasureProcessCPUTime();

int main(int argc, char **argv)
{
    const rlimit descriptors = {kDescriptors, kDescriptors};
    setrlimit(RLIMIT_NOFILE, &descriptors); // where it is refused, creating endpoints fails
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
}
