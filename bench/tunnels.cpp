#include "asuser.h"
#include "programs.h"
#include "rows.h"
#include "standins.h"
#include "vpnlab.h"

#include <memory>
#include <vector>

namespace {

using Openvpn = DaemonProcess::Openvpn;

constexpr double kSlackMs = 20;

Result connects(bool isUdp)
{
    const Daemon daemon(Openvpn::Real);
    const Lab lab;
    const VpnServerInformation server = vpnlab::server();
    AttachedClient client;
    const QString configuration = configurationFrom(client, server, isUdp);
    return Result::ofTurns(
               QStringLiteral("ms"), 30, [&] { return runBare(configuration).untilSuccess; },
               [&] {
                   const double time = client.connectTunnel(server, isUdp);
                   client.endTunnel();
                   return time;
               })
        .mustBeAtMostBaselinePlus(10, 30);
}

/// The time until openvpn is told to end, while another user's 64 clients connect without a pause.
Result disconnectInAFlood()
{
    constexpr uid_t kUser = 501;
    constexpr uid_t kHostileUser = 502;
    const Daemon daemon;
    std::vector<std::unique_ptr<AttachedClient>> hostile;
    {
        const lab::AsUser as(kHostileUser);
        require(as.isActive(), "this private root has one user only");
        while (hostile.size() < 64)
            hostile.push_back(std::make_unique<AttachedClient>());
    }
    std::unique_ptr<AttachedClient> victim;
    {
        const lab::AsUser as(kUser);
        victim = std::make_unique<AttachedClient>();
    }

    QVector<double> times;
    for (int round = 0; round < 10; ++round) {
        victim->connectTunnel(standins::serverFor(QStringLiteral("prints-at-once-success")));
        const QString told =
            QStringLiteral("%1 is told to end").arg(standins::openvpnStarts().last().pid);
        for (const auto &client : hostile)
            client->connectUdp(standins::serverFor(QStringLiteral("silent")));
        QElapsedTimer timer;
        timer.start();
        victim->disconnectTunnel();
        pollUntil(
            [&] { return standins::stateLines(QStringLiteral("openvpn/journal")).contains(told); },
            "openvpn is not told to end");
        times.append(double(timer.nsecsElapsed()) / 1e6);
        for (const auto &client : hostile)
            client->disconnectTunnel();
        pollUntil([&] { return victim->answers().size() == 2 * (round + 1); }, "no answer");
    }
    Result result(QStringLiteral("ms"), times);
    result.measured = quantile(times, 1);
    result.remark = QStringLiteral("the worst; median %1 ms").arg(median(times), 0, 'f', 1);
    return result.mustBeAtMost(1'000);
}

Result disconnects(const VpnServerInformation &server)
{
    AttachedClient client;
    const QString configuration = configurationFrom(client, server, true);

    return Result::ofTurns(
               QStringLiteral("ms"), 20,
               [&] { return runBare(configuration).untilEnd + runRestoreScript(); },
               [&] {
                   client.connectTunnel(server);
                   return client.endTunnel();
               })
        .mustBeAtMostBaselinePlus(kSlackMs);
}

Result disconnectAtOnce()
{
    const Daemon daemon;
    return disconnects(standins::serverFor(QStringLiteral("prints-at-once-success")));
}

Result disconnectReal()
{
    const Daemon daemon(Openvpn::Real);
    const Lab lab;
    return disconnects(vpnlab::server());
}

} // namespace

Rows tunnelRows()
{
    return {
        {"4a", "connect over UDP, command to answer", Needs::Tunnel, [] { return connects(true); }},
        {"4b", "connect over TCP, command to answer", Needs::Tunnel,
         [] { return connects(false); }},
        {"5a", "disconnect, openvpn ending at once", Needs::PrivateRoot, disconnectAtOnce},
        {"5b", "disconnect, real openvpn", Needs::Tunnel, disconnectReal},
        {"5c", "disconnect until openvpn is told to end, another user floods", Needs::PrivateRoot,
         disconnectInAFlood},
    };
}
