#include "inprocessresults.h"
#include "measurements.h"
#include "session.h"
#include "subject.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr int kCalls = 4000;
constexpr int kBursts = 21;
constexpr int kCallRounds = 15;
constexpr auto kCallLimit = 30s;
constexpr double kCallBar = 0.9;

constexpr int kCreationRounds = 15;
constexpr double kCreationBar = 1.3;

constexpr int kEndpoints = 2000;
constexpr int kConnectedEndpoints = 100;
constexpr int kMemoryRounds = 3;
constexpr double kEndpointBarKiB = 10;
constexpr auto kSettle = 500ms;

using Call = std::function<void(Client &)>;

/// @return how many calls the host serves in a second of processor time, when they come in one
/// burst.
double callsPerSecond(const Subject &host, Client &client, const Call &call, const QByteArray &line)
{
    const qint64 start = host.logSize();
    const qint64 end = start + qint64(kCalls) * (line.size() + 1);
    const auto before = host.processorTime();
    for (int n = 0; n < kCalls; ++n)
        call(client);
    require(session::pollUntil(kCallLimit, [&] { return host.logSize() >= end; }),
            "not every call was logged");
    const std::chrono::duration<double> used = host.processorTime() - before;
    require(host.logFrom(start).count(line + '\n') == kCalls, "the log has other lines");
    return kCalls / used.count();
}

/// Measures subject and baseline in turns.
/// @return the best burst of either. Other work on the machine takes caches and never gives any.
std::pair<double, double> bestBursts(const Call &call, const QByteArray &line,
                                     MinimalHost::Commands commands)
{
    const Daemon daemon;
    const MinimalHost host(commands);
    Client client;
    require(client.attachToNewEndpoint(), "the client could not attach");
    Client hostClient;
    require(hostClient.attach(MinimalHost::kEndpoint), "the client could not attach");

    std::pair<double, double> best;
    for (int n = 0; n < kBursts; ++n) {
        best.first = std::max(best.first, callsPerSecond(daemon, client, call, line));
        best.second = std::max(best.second, callsPerSecond(host, hostClient, call, line));
    }
    return best;
}

Result calls(const Call &call, const QByteArray &line, MinimalHost::Commands commands, Bar bar)
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
    Result result = pairedResult(QStringLiteral("/s"), measured, baseline, bar);
    result.remark = QStringLiteral("of processor time; a round is the best of %1 bursts of %2 with "
                                   "new processes; ratios from %3 to %4")
                        .arg(kBursts)
                        .arg(kCalls)
                        .arg(*std::min_element(ratios.begin(), ratios.end()), 0, 'f', 3)
                        .arg(*std::max_element(ratios.begin(), ratios.end()), 0, 'f', 3);
    return result;
}

const char kLineWithoutEffect[] = "Command status  \"nothing\"";

void sendWithoutEffect(Client &client)
{
    client.send(QStringLiteral(R"({"type":"nothing"})"));
}

QStringList withDescriptors()
{
    return {QStringLiteral("prlimit"), QStringLiteral("--nofile=8192")};
}

Result endpointMemory(const QVector<double> &kibibytes, Bar bar)
{
    Result result;
    result.unit = QStringLiteral("KiB");
    result.rounds = kibibytes.size();
    result.measured = median(kibibytes);
    result.bar = bar;
    return result;
}

} // namespace

Result heartbeats()
{
    return calls([](Client &client) { client.heartbeat(); }, "Replica state is  true",
                 MinimalHost::Commands::Unread, Bar::ratioAtLeast(kCallBar));
}

Result commandsWithoutEffect()
{
    return calls(sendWithoutEffect, kLineWithoutEffect, MinimalHost::Commands::Read,
                 Bar::ratioAtLeast(kCallBar));
}

Result commandsWithoutEffectUnread()
{
    return calls(sendWithoutEffect, kLineWithoutEffect, MinimalHost::Commands::Unread, Bar::none());
}

Result endpointCreation()
{
    const QString program = QStringLiteral(TALVEX_INPROCESS);
    const QVector<double> last = processorMilliseconds(
        program, QStringLiteral("createHundredEndpoints/1900"), kCreationRounds);
    const QVector<double> first =
        processorMilliseconds(program, QStringLiteral("createHundredEndpoints/0"), kCreationRounds);
    Result result = pairedResult(QStringLiteral("ms"), last, first, Bar::ratioAtMost(kCreationBar));
    result.ratio = median(last) / median(first);
    result.remark = QStringLiteral("processor time of a hundred, 1,901 to 2,000 against 1 to 100");
    return result;
}

Result idleEndpointMemory()
{
    QVector<double> each;
    for (int round = 0; round < kMemoryRounds; ++round) {
        const Daemon daemon(Daemon::Openvpn::StandIn, Daemon::Waits::Sleeping, withDescriptors());
        Client client;
        require(client.connectToMainSocket(), "the client could not connect");
        const qint64 before = daemon.residentMemory();
        for (int n = 1; n <= kEndpoints; ++n)
            require(client.createEndpoint() == n, "an endpoint could not be created");
        each.append(static_cast<double>(daemon.residentMemory() - before) / kEndpoints);
    }
    Result result = endpointMemory(each, Bar::atMost(kEndpointBarKiB));
    result.remark = QStringLiteral("of %1").arg(kEndpoints);
    return result;
}

Result connectedEndpointMemory()
{
    QVector<double> each;
    for (int round = 0; round < kMemoryRounds; ++round) {
        const Daemon daemon;
        Client first;
        require(first.attachToNewEndpoint(), "the client could not attach");
        const qint64 before = daemon.residentMemory();
        std::vector<std::unique_ptr<Client>> clients;
        for (int n = 0; n < kConnectedEndpoints; ++n) {
            clients.push_back(std::make_unique<Client>());
            require(clients.back()->attachToNewEndpoint(), "the client could not attach");
            clients.back()->heartbeat();
        }
        vpncore::waitUntil(kSettle);
        each.append(static_cast<double>(daemon.residentMemory() - before) / kConnectedEndpoints);
    }
    Result result = endpointMemory(each, Bar::none());
    result.remark =
        QStringLiteral("of %1, with their connections to the main socket").arg(kConnectedEndpoints);
    return result;
}
