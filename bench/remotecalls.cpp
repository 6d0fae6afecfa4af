#include "programs.h"
#include "rows.h"

#include "ipcserver.h"
#include "privateroot.h"

#include <algorithm>
#include <memory>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr int kCalls = 4000;
constexpr int kBursts = 21;
constexpr int kCallRounds = 15;
constexpr double kCallBar = 0.9;

constexpr int kCreationRounds = 15;
constexpr int kMemoryRounds = 3;
constexpr int kEndpoints = 2000;
constexpr int kConnectedEndpoints = 100;

using Call = std::function<void(Client &)>;

/// @return how many calls the host serves in a second of processor time, when they come in one
/// burst.
double callsPerSecond(const Program &host, Client &client, const Call &call, const QByteArray &line)
{
    const qint64 start = host.logSize();
    const qint64 end = start + qint64(kCalls) * (line.size() + 1);
    const double before = processorTime(host.pid());
    for (int n = 0; n < kCalls; ++n)
        call(client);
    pollUntil([&] { return host.logSize() >= end; }, "not every call was logged");
    const double seconds = (processorTime(host.pid()) - before) / 1e3;
    require(host.logFrom(start).count(line + '\n') == kCalls, "the log has other lines");
    return kCalls / seconds;
}

/// @return the best burst of subject and baseline. Other work on the machine takes caches and never
/// gives any.
std::pair<double, double> bestBursts(const Call &call, const QByteArray &line,
                                     MinimalHost::Commands commands)
{
    const Daemon daemon;
    const MinimalHost host(commands);
    AttachedClient client;
    Client hostClient;
    require(hostClient.attach(MinimalHost::kEndpoint), "the client could not attach");

    std::pair<double, double> best;
    for (int n = 0; n < kBursts; ++n) {
        best.first = std::max(best.first, callsPerSecond(daemon, client, call, line));
        best.second = std::max(best.second, callsPerSecond(host, hostClient, call, line));
    }
    return best;
}

Result calls(const Call &call, const QByteArray &line, MinimalHost::Commands commands)
{
    // How a process happens to lie in memory is worth some percent, so every round has new ones.
    QVector<double> measured;
    QVector<double> baseline;
    QVector<double> ratios;
    for (int n = 0; n < kCallRounds; ++n) {
        const auto [subjects, hosts] = bestBursts(call, line, commands);
        measured.append(subjects);
        baseline.append(hosts);
        ratios.append(subjects / hosts);
    }
    Result result(QStringLiteral("/s"), measured, baseline);
    result.remark = QStringLiteral("of processor time; a round is the best of %1 bursts of %2 with "
                                   "new processes; ratios from %3 to %4")
                        .arg(kBursts)
                        .arg(kCalls)
                        .arg(quantile(ratios, 0), 0, 'f', 3)
                        .arg(quantile(ratios, 1), 0, 'f', 3);
    return result;
}

Result callsWithoutEffect(MinimalHost::Commands commands)
{
    return calls([](Client &client) { client.send(QStringLiteral(R"({"type":"nothing"})")); },
                 "Command status  \"nothing\"", commands);
}

Result heartbeats()
{
    return calls([](Client &client) { client.heartbeat(); }, "Replica state is  true",
                 MinimalHost::Commands::Unread)
        .ratioMustBeAtLeast(kCallBar);
}

Result endpointCreation()
{
    // In this process: between calls from outside, the event loop looks through all sockets.
    const QtMessageHandler printing =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    QVector<double> last;
    QVector<double> first;
    for (int round = 0; round < kCreationRounds; ++round) {
        lab::resetPrivateRoot();
        IpcServer server;
        const auto timeUpTo = [&server](int number) {
            const double before = processorTime(getpid());
            int endpoint = 0;
            while (endpoint < number) {
                endpoint = server.createPrivilegedProcess();
                require(endpoint > 0, "an endpoint could not be created");
            }
            return processorTime(getpid()) - before;
        };
        first.append(timeUpTo(100));
        timeUpTo(1900);
        last.append(timeUpTo(2000));
    }
    qInstallMessageHandler(printing);
    Result result(QStringLiteral("ms"), last, first);
    result.remark = QStringLiteral("processor time of a hundred, 1,901 to 2,000 against 1 to 100");
    return result.ratioMustBeAtMost(1.3);
}

Result idleEndpointMemory()
{
    QVector<double> each;
    for (int round = 0; round < kMemoryRounds; ++round) {
        const Daemon daemon;
        Client client;
        require(client.connectToMainSocket(), "the client could not connect");
        const double before = memoryOf(daemon.pid(), "Rss");
        for (int n = 1; n <= kEndpoints; ++n)
            require(client.createEndpoint() == n, "an endpoint could not be created");
        each.append((memoryOf(daemon.pid(), "Rss") - before) / kEndpoints);
    }
    Result result(QStringLiteral("KiB"), each);
    result.remark = QStringLiteral("of %1").arg(kEndpoints);
    return result.mustBeAtMost(10);
}

Result connectedEndpointMemory()
{
    QVector<double> each;
    for (int round = 0; round < kMemoryRounds; ++round) {
        const Daemon daemon;
        AttachedClient first;
        const double before = memoryOf(daemon.pid(), "Rss");
        std::vector<std::unique_ptr<AttachedClient>> clients;
        for (int n = 0; n < kConnectedEndpoints; ++n) {
            clients.push_back(std::make_unique<AttachedClient>());
            clients.back()->heartbeat();
        }
        vpncore::waitUntil(500ms);
        each.append((memoryOf(daemon.pid(), "Rss") - before) / kConnectedEndpoints);
    }
    Result result(QStringLiteral("KiB"), each);
    result.remark =
        QStringLiteral("of %1, with their connections to the main socket").arg(kConnectedEndpoints);
    return result;
}

} // namespace

Rows remoteCallRows()
{
    using Commands = MinimalHost::Commands;
    return {
        {"6a", "heartbeats", Needs::PrivateRoot, heartbeats},
        {"6b", "commands without effect", Needs::PrivateRoot,
         [] { return callsWithoutEffect(Commands::Read).ratioMustBeAtLeast(kCallBar); }},
        {"6c", "the same, baseline without reading them", Needs::PrivateRoot,
         [] { return callsWithoutEffect(Commands::Unread); }},
        {"7a", "creating endpoints", Needs::PrivateRoot, endpointCreation},
        {"7b", "memory of an endpoint, not connected", Needs::PrivateRoot, idleEndpointMemory},
        {"7c", "memory of an endpoint, connected", Needs::PrivateRoot, connectedEndpointMemory},
    };
}
