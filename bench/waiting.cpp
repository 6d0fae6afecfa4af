#include "programs.h"
#include "rows.h"

#include "macplatform.h"
#include "measures.h"
#include "standins.h"
#include "vpnlab.h"

#include <algorithm>
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

} // namespace

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
