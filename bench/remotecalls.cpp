#include "files.h"
#include "subjects.h"

#include "ipcserver.h"
#include "privateroot.h"

#include <QtCore/QFileInfo>

#include <algorithm>
#include <unistd.h>

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
    const double used = processorTimeOf(host.pid(), [&] {
        for (int n = 0; n < kCalls; ++n)
            call(client);
        pollUntil([&] { return QFileInfo(host.log()).size() >= end; }, "not every call was logged");
    });
    require(lab::contentOf(host.log()).mid(static_cast<int>(start)).count(line + '\n') == kCalls,
            "the log has other lines");
    return kCalls / used * 1e3;
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
    found.remark = QString("of processor time; a round is the best of %1 bursts of %2 with "
                           "new processes; ratios from {ratios[0]:.3f} to {ratios[1]:.3f}")
                       .arg(kBursts)
                       .arg(kCalls);
    return found;
}

Measurement callsWithoutEffect(const QString &commands)
{
    return calls([](Client &client) { client.send(R"({"type":"nothing"})"); },
                 "Command status  \"nothing\"", commands);
}

Measurement heartbeats()
{
    return calls([](Client &client) { client.heartbeat(); }, "Replica state is  true", "unread");
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
            return processorTimeOf(getpid(), [&server, number] {
                int endpoint = 0;
                while (endpoint < number) {
                    endpoint = server.createPrivilegedProcess();
                    require(endpoint > 0, "an endpoint could not be created");
                }
            });
        };
        found.baseline.append(timeUpTo(100));
        timeUpTo(1900);
        found.samples.append(timeUpTo(2000));
    }
    qInstallMessageHandler(printing);
    found.remark = "processor time of a hundred, 1,901 to 2,000 against 1 to 100";
    return found;
}

/// @param take makes @p number endpoints, and gives back what is to live on.
/// @return the resident memory that one of them takes.
QJsonArray memoryOfEndpoints(int number, Clients (*take)(int number))
{
    QJsonArray each;
    for (int round = 0; round < 3; ++round) {
        const Daemon daemon;
        attachedClients(1);
        const double before = memoryOf(daemon.pid(), "Rss");
        const Clients clients = take(number);
        vpncore::waitUntil(500ms);
        each.append((memoryOf(daemon.pid(), "Rss") - before) / number);
    }
    return each;
}

Measurement memoryUnconnected()
{
    const auto take = [](int number) {
        Clients clients = attachedClients(1);
        while (number-- > 0)
            require(clients.front()->createEndpoint() > 0, "an endpoint could not be created");
        return clients;
    };
    return {memoryOfEndpoints(2000, take), {}, "of 2000"};
}

Measurement memoryConnected()
{
    const auto take = [](int number) {
        Clients clients = attachedClients(number);
        for (const auto &client : clients)
            client->heartbeat();
        return clients;
    };
    return {memoryOfEndpoints(100, take), {}, "of 100, with their connections to the main socket"};
}

} // namespace

Rows remoteCallRows()
{
    return {{"6a", heartbeats},
            {"6b", [] { return callsWithoutEffect("read"); }},
            {"6c", [] { return callsWithoutEffect("unread"); }},
            {"7a", endpointCreation},
            {"7b", memoryUnconnected},
            {"7c", memoryConnected}};
}
