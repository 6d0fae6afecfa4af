#include "programs.h"
#include "rows.h"

#include "measures.h"
#include "standins.h"

#include <QtCore/QFileInfo>

#include <algorithm>

namespace {

using namespace std::chrono_literals;

/// Alone: two at the same time would share pages with each other.
template<typename AnyProgram>
double idleMemoryOf()
{
    const AnyProgram program;
    vpncore::waitUntil(1s);
    return memoryOf(program.pid(), "Pss");
}

Result start()
{
    return Result::ofTurns(QStringLiteral("ms"), 30, runRestoreScript,
                           [] { return Daemon().startTime(); })
        .mustBeAtMostBaselinePlus(50);
}

Result idleMemory()
{
    return Result::ofTurns(QStringLiteral("KiB"), 5, idleMemoryOf<MinimalHost>,
                           idleMemoryOf<Daemon>)
        .ratioMustBeAtMost(1.2);
}

Result binarySize()
{
    const QFileInfo binary(QStringLiteral(TALVEX_STRIPPED_DAEMON));
    require(binary.size() > 0, "there is no stripped binary");
    return Result(QStringLiteral("KiB"), {static_cast<double>(binary.size()) / 1024})
        .mustBeAtMost(1024);
}

Result threads()
{
    const Daemon daemon;
    AttachedClient client;
    qint64 threads = 0;
    const auto hasAnswers = [&](int answers) {
        return [&, answers] {
            threads = std::max(threads, measures::statusOf(daemon.pid(), "Threads"));
            return client.answers().size() == answers;
        };
    };
    client.connectUdp(standins::serverFor(QStringLiteral("connects")));
    pollUntil(hasAnswers(1), "no answer came");
    require(client.outcome() == QLatin1String("success"), "the connect failed");
    client.disconnectTunnel();
    pollUntil(hasAnswers(2), "no answer came");

    Result result(QStringLiteral("thread"), {static_cast<double>(threads)});
    result.remark = QStringLiteral("looked at all through a connect and a disconnect");
    return result.mustBeAtMost(1);
}

} // namespace

Rows startAndSizeRows()
{
    return {
        {"8", "exec to listening", Needs::PrivateRoot, start},
        {"9a", "memory when idle (PSS)", Needs::PrivateRoot, idleMemory},
        {"9b", "size of the stripped binary", Needs::Nothing, binarySize},
        {"10", "threads", Needs::PrivateRoot, threads},
    };
}
