#include "programs.h"
#include "rows.h"

#include "macplatform.h"
#include "measures.h"
#include "standins.h"
#include "vpnlab.h"

#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr double kLightWait = 0.01;
constexpr auto kHeartbeatPeriod = 10s;
constexpr int kHeartbeats = 3;
constexpr auto kSettle = 2s;

/// @param duration how long the wait was that cost @p measured milliseconds.
Result besideSpinning(double measured, std::chrono::seconds duration)
{
    return Result(QStringLiteral("ms"), {measured}, {processorTimeOfSpinning(duration)})
        .ratioMustBeAtMost(kLightWait);
}

qint64 wakeUpsOf(const Program &program)
{
    return measures::statusOf(program.pid(), "voluntary_ctxt_switches");
}

Result processorTimeOfSilentConnect()
{
    const Daemon daemon;
    AttachedClient client;
    const double before = processorTime(daemon.pid());
    client.timeOf([&] { client.connectUdp(standins::serverFor(QStringLiteral("silent"))); });
    const double measured = processorTime(daemon.pid()) - before;
    require(client.outcome() == QLatin1String("warning.open_vpn_server_does_not_respond"),
            "the silent server got another answer");
    return besideSpinning(measured, 10s);
}

Result processorTimeOfIgnoredSigterm()
{
    const Daemon daemon;
    AttachedClient client;
    client.connectTunnel(standins::serverFor(QStringLiteral("ignores-term")));
    const double before = processorTime(daemon.pid());
    require(client.endTunnel() > 15'000, "openvpn did not ignore SIGTERM");
    return besideSpinning(processorTime(daemon.pid()) - before, 15s);
}

Result processorTimeOfRunProcess()
{
    const double before = processorTime(getpid());
    QString output;
    require(vpncore::MacPlatform::runProcess(QStringLiteral("sleep 5"), 10, output) == 0,
            "sleep did not run to its end");
    return besideSpinning(processorTime(getpid()) - before, 5s);
}

Result wakeUpsWithoutClient()
{
    const Daemon daemon;
    vpncore::waitUntil(kSettle);
    const qint64 before = wakeUpsOf(daemon);
    vpncore::waitUntil(30s);
    Result result(QStringLiteral("wake-ups"), {static_cast<double>(wakeUpsOf(daemon) - before)});
    result.remark = QStringLiteral("in 30 s");
    return result.mustBeAtMost(0);
}

Result wakeUpsWithTunnel()
{
    const Daemon daemon(DaemonProcess::Openvpn::Real);
    const Lab lab;
    AttachedClient client;
    client.connectTunnel(vpnlab::server());
    client.heartbeat();
    vpncore::waitUntil(kSettle);

    const qint64 before = wakeUpsOf(daemon);
    for (int n = 0; n < kHeartbeats; ++n) {
        vpncore::waitUntil(kHeartbeatPeriod);
        client.heartbeat();
    }
    vpncore::waitUntil(kSettle);
    const double wakeUps = static_cast<double>(wakeUpsOf(daemon) - before);
    client.endTunnel();

    Result result(QStringLiteral("wake-ups"), {wakeUps / kHeartbeats});
    result.remark = QStringLiteral("each heartbeat, of %1 in 30 s").arg(kHeartbeats);
    return result.mustBeAtMost(4);
}

} // namespace

Rows waitingRows()
{
    return {
        {"1", "processor time in a connect to a silent server, 10 s", Needs::PrivateRoot,
         processorTimeOfSilentConnect},
        {"2a", "processor time while openvpn ignores SIGTERM, 15 s", Needs::PrivateRoot,
         processorTimeOfIgnoredSigterm},
        {"2b", "processor time of runProcess on \"sleep 5\"", Needs::Nothing,
         processorTimeOfRunProcess},
        {"3a", "wake-ups without a client", Needs::PrivateRoot, wakeUpsWithoutClient},
        {"3b", "wake-ups with a tunnel and heartbeats", Needs::Tunnel, wakeUpsWithTunnel},
    };
}
