#include "files.h"
#include "subjects.h"

#include "ipcserver.h"
#include "privateroot.h"

#include <QtCore/QFileInfo>

#include <algorithm>
#include <memory>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kCalls = 4000;
constexpr int kBursts = 21;
constexpr int kRounds = 15;

using Call = void (*)(Client &);

/// @return how many calls the host serves in a second of processor time, when they come in one
/// burst.
double callsPerSecond(const Program &host, Client &client, Call call, const QByteArray &line)
{
    const qint64 start = QFileInfo(host.log()).size();
    const qint64 end = start + qint64(kCalls) * (line.size() + 1);
    const double before = processorTime(host.pid());
    for (int n = 0; n < kCalls; ++n)
        call(client);
    pollUntil([&] { return QFileInfo(host.log()).size() >= end; }, "not every call was logged");
    const double seconds = (processorTime(host.pid()) - before) / 1e3;
    require(lab::contentOf(host.log()).mid(static_cast<int>(start)).count(line + '\n') == kCalls,
            "the log has other lines");
    return kCalls / seconds;
}

Measurement calls(Call call, const QByteArray &line, const QString &commands)
{
    Measurement found;
    // How a process happens to lie in memory is worth some percent, so every round has new ones.
    for (int n = 0; n < kRounds; ++n) {
        const Daemon daemon;
        const MinimalHost host(commands);
        AttachedClient client;
        Client hostClient;
        require(hostClient.attach(MinimalHost::kEndpoint), "the client could not attach");
        // The best: other work on the machine takes caches and never gives any.
        double best = 0;
        double bestOfHost = 0;
        for (int burst = 0; burst < kBursts; ++burst) {
            best = std::max(best, callsPerSecond(daemon, client, call, line));
            bestOfHost = std::max(bestOfHost, callsPerSecond(host, hostClient, call, line));
        }
        found.samples.append(best);
        found.baseline.append(bestOfHost);
    }
    found.remark = QStringLiteral("of processor time; a round is the best of %1 bursts of %2 with "
                                  "new processes; ratios from {ratios[0]:.3f} to {ratios[1]:.3f}")
                       .arg(kBursts)
                       .arg(kCalls);
    return found;
}

Measurement callsWithoutEffect(const QString &commands)
{
    return calls([](Client &client) { client.send(QStringLiteral(R"({"type":"nothing"})")); },
                 "Command status  \"nothing\"", commands);
}

Measurement heartbeats()
{
    return calls([](Client &client) { client.heartbeat(); }, "Replica state is  true",
                 QStringLiteral("unread"));
}

Measurement endpointCreation()
{
    // In this process: between calls from outside, the event loop looks through all sockets.
    const QtMessageHandler printing =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    Measurement found;
    for (int round = 0; round < kRounds; ++round) {
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
        found.baseline.append(timeUpTo(100));
        timeUpTo(1900);
        found.samples.append(timeUpTo(2000));
    }
    qInstallMessageHandler(printing);
    found.remark = QStringLiteral("processor time of a hundred, 1,901 to 2,000 against 1 to 100");
    return found;
}

/// @param isConnected whether each endpoint has a client.
/// @return the resident memory that one of @p number endpoints takes.
QVector<double> memoryOfEndpoints(int number, bool isConnected)
{
    QVector<double> each;
    for (int round = 0; round < 3; ++round) {
        const Daemon daemon;
        AttachedClient first;
        const double before = memoryOf(daemon.pid(), "Rss");
        std::vector<std::unique_ptr<AttachedClient>> clients;
        for (int n = 0; n < number; ++n) {
            if (!isConnected) {
                require(first.createEndpoint() > 0, "an endpoint could not be created");
                continue;
            }
            clients.push_back(std::make_unique<AttachedClient>());
            clients.back()->heartbeat();
        }
        vpncore::waitUntil(500ms);
        each.append((memoryOf(daemon.pid(), "Rss") - before) / number);
    }
    return each;
}

} // namespace

Rows remoteCallRows()
{
    return {{"6a", heartbeats},
            {"6b", [] { return callsWithoutEffect(QStringLiteral("read")); }},
            {"6c", [] { return callsWithoutEffect(QStringLiteral("unread")); }},
            {"7a", endpointCreation},
            {"7b",
             [] {
                 return Measurement{memoryOfEndpoints(2000, false), {}, QStringLiteral("of 2000")};
             }},
            {"7c", [] {
                 return Measurement{
                     memoryOfEndpoints(100, true),
                     {},
                     QStringLiteral("of 100, with their connections to the main socket")};
             }}};
}
