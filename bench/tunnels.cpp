#include "files.h"
#include "subjects.h"

#include "asuser.h"
#include "configtext.h"
#include "macplatform.h"
#include "openvpnoutput.h"
#include "standins.h"
#include "vpnlab.h"

#include <memory>

namespace {

using Openvpn = DaemonProcess::Openvpn;

/// One run of openvpn without the daemon.
struct BareRun
{
    double untilSuccess; ///< milliseconds from before its start to its success line
    double untilEnd; ///< milliseconds from SIGTERM to its end
};

/// Starts the program beside the daemon with the configuration @p file and stops it when it is up.
BareRun runBare(const QString &file)
{
    QProcess openvpn;
    openvpn.setProcessChannelMode(QProcess::MergedChannels);
    vpncore::OpenvpnOutput output; // the laboratory's servers have names that look like success
    QElapsedTimer timer;
    timer.start();
    openvpn.start(DaemonProcess::programFolder() + "/openvpn", {"--config", file});
    const auto isUp = [&] {
        output.add(openvpn.readAllStandardOutput());
        return output.judgedText().contains(QLatin1String(vpncore::kSuccessMarker));
    };
    require(vpncore::waitUntil(kLimit, isUp), "openvpn alone did not come up");
    const double untilSuccess = milliseconds(timer);

    timer.restart();
    openvpn.terminate();
    require(vpncore::waitUntil(kLimit, [&] { return openvpn.state() == QProcess::NotRunning; }),
            "openvpn alone did not end");
    return {untilSuccess, milliseconds(timer)};
}

/// @return the name of a file with the configuration that the daemon writes.
QString configurationFor(const VpnServerInformation &server, bool isUdp = true)
{
    using vpncore::OvpnConnection;
    const QString text =
        configtext::generated(isUdp ? OvpnConnection::Udp : OvpnConnection::Tcp, server)
            .replace(vpncore::MacPlatform::resourcesDir(),
                     DaemonProcess::programFolder().replace("MacOS", "Resources"));
    lab::writeFile("/tmp/configuration", configtext::written(text));
    return "/tmp/configuration";
}

template<bool isUdp>
Measurement connects()
{
    const Daemon daemon(Openvpn::Real);
    needServers();
    const VpnServerInformation server = vpnlab::server();
    AttachedClient client;
    const QString configuration = configurationFor(server, isUdp);
    Measurement found{{}, {}, kWorst};
    for (int n = 0; n < 30; ++n) {
        found.baseline.append(runBare(configuration).untilSuccess);
        found.samples.append(client.connectTunnel(server, isUdp));
        client.endTunnel();
    }
    return found;
}

template<Openvpn openvpn>
Measurement disconnects()
{
    const Daemon daemon(openvpn);
    if (openvpn == Openvpn::Real)
        needServers();
    const VpnServerInformation server =
        openvpn == Openvpn::Real ? vpnlab::server() : standins::serverFor("prints-at-once-success");
    AttachedClient client;
    const QString configuration = configurationFor(server);
    Measurement found{{}, {}, kWorst};
    for (int n = 0; n < 20; ++n) {
        found.baseline.append(runBare(configuration).untilEnd + runRestoreScript());
        client.connectTunnel(server);
        found.samples.append(client.endTunnel());
    }
    return found;
}

/// The time until openvpn is told to end, while another user's 64 clients connect without a pause.
Measurement disconnectInAFlood()
{
    constexpr uid_t kUser = 501;
    constexpr uid_t kHostileUser = 502;
    const Daemon daemon;
    Clients hostile;
    {
        const lab::AsUser as(kHostileUser);
        require(as.isActive(), "this private root has one user only");
        hostile = attachedClients(64);
    }
    std::unique_ptr<AttachedClient> victim;
    {
        const lab::AsUser as(kUser);
        victim = std::make_unique<AttachedClient>();
    }

    Measurement found{{}, {}, "the worst; median {measured:.1f} ms"};
    for (int round = 0; round < 10; ++round) {
        victim->connectTunnel(standins::serverFor("prints-at-once-success"));
        const QString told = QString("%1 is told to end").arg(standins::openvpnStarts().last().pid);
        for (const auto &client : hostile)
            client->connectUdp(standins::serverFor("silent"));
        QElapsedTimer timer;
        timer.start();
        victim->disconnectTunnel();
        pollUntil([&] { return standins::stateLines("openvpn/journal").contains(told); },
                  "openvpn is not told to end");
        found.samples.append(milliseconds(timer));
        for (const auto &client : hostile)
            client->disconnectTunnel();
        pollUntil([&] { return victim->answers().size() == 2 * (round + 1); }, "no answer");
    }
    return found;
}

} // namespace

Rows tunnelRows()
{
    return {{"4a", connects<true>},
            {"4b", connects<false>},
            {"5a", disconnects<Openvpn::StandIn>},
            {"5b", disconnects<Openvpn::Real>},
            {"5c", disconnectInAFlood}};
}
