#include "programs.h"
#include "rows.h"
#include "standins.h"
#include "vpnlab.h"

#include <cmath>

namespace {

using Openvpn = DaemonProcess::Openvpn;

constexpr int kConnects = 30;
constexpr double kPollMs = 500;
constexpr double kSlackMs = 20;

Result connects(bool isUdp)
{
    const Daemon daemon(Openvpn::Real);
    const Lab lab;
    const VpnServerInformation server = vpnlab::server();
    AttachedClient client;
    const QString configuration = configurationFrom(client, server, isUdp);

    QVector<double> answers;
    QVector<double> bare;
    for (int n = 0; n < kConnects; ++n) {
        bare.append(runBare(configuration).untilSuccess);
        answers.append(client.connectTunnel(server, isUdp));
        client.endTunnel();
    }

    // The poll at which openvpn alone, at its median, would have been found to be up.
    const double poll = std::ceil(median(bare) / kPollMs) * kPollMs;
    int within = 0;
    for (const double answer : answers)
        within += answer <= poll + kSlackMs;
    Result result(QStringLiteral("ms"), answers, bare);
    result.measured = quantile(answers, 0.9);
    result.remark =
        QStringLiteral("9th decile; median %1 ms, worst %2 ms, %3 of %4 within the bar; "
                       "the poll is at %5 ms; openvpn alone took %6 ms at worst")
            .arg(median(answers), 0, 'f', 1)
            .arg(quantile(answers, 1), 0, 'f', 1)
            .arg(within)
            .arg(answers.size())
            .arg(poll)
            .arg(quantile(bare, 1), 0, 'f', 1);
    return result.mustBeAtMost(poll + kSlackMs);
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
    };
}
