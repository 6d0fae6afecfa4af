#include "inprocessresults.h"
#include "measurements.h"
#include "session.h"
#include "subject.h"

#include <algorithm>
#include <functional>

namespace {

using namespace std::chrono_literals;

constexpr double kLightWait = 0.01;
constexpr auto kObservation = 30s;
constexpr auto kHeartbeatPeriod = 10s;
constexpr int kHeartbeats = kObservation / kHeartbeatPeriod;
constexpr auto kSettle = 2s;

double toMilliseconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

/// What the daemon uses for @p act, which waits for the answer of a command.
double processorTime(Daemon::Waits waits, const std::function<void(Client &)> &prepare,
                     const std::function<void(Client &)> &act)
{
    const Daemon daemon(Daemon::Openvpn::StandIn, waits);
    Client client;
    require(client.attachToNewEndpoint(), "the client could not attach");
    prepare(client);
    const auto before = daemon.processorTime();
    act(client);
    return toMilliseconds(daemon.processorTime() - before);
}

Result processorTimeResult(const std::function<void(Client &)> &prepare,
                           const std::function<void(Client &)> &act)
{
    const double measured = processorTime(Daemon::Waits::Sleeping, prepare, act);
    const double baseline = processorTime(Daemon::Waits::Spinning, prepare, act);
    return pairedResult(QStringLiteral("ms"), {measured}, {baseline}, Bar::ratioAtMost(kLightWait));
}

} // namespace

Result processorTimeOfSilentConnect()
{
    return processorTimeResult(
        [](Client &) {},
        [](Client &client) {
            session::connect(client, session::standIn(QStringLiteral("silent")));
            require(client.outcome() == QLatin1String("warning.open_vpn_server_does_not_respond"),
                    "the silent server got another answer");
        });
}

Result processorTimeOfIgnoredSigterm()
{
    return processorTimeResult(
        [](Client &client) {
            session::mustConnect(client, session::standIn(QStringLiteral("ignores-term")));
        },
        [](Client &client) {
            const double time = session::mustDisconnect(client);
            require(time > toMilliseconds(15s), "openvpn did not ignore SIGTERM");
        });
}

Result processorTimeOfRunProcess()
{
    const QString benchmark = QStringLiteral("runProcessOnSleep");
    const QVector<double> measured =
        processorMilliseconds(QStringLiteral(TALVEX_INPROCESS), benchmark, 1);
    const QVector<double> baseline =
        processorMilliseconds(QStringLiteral(TALVEX_INPROCESS_SPINNING), benchmark, 1);
    return pairedResult(QStringLiteral("ms"), measured, baseline, Bar::ratioAtMost(kLightWait));
}

Result wakeUpsWithoutClient()
{
    const Daemon daemon;
    vpncore::waitUntil(kSettle);
    const qint64 before = daemon.voluntarySwitches();
    vpncore::waitUntil(kObservation);
    Result result;
    result.unit = QStringLiteral("wake-ups");
    result.measured = static_cast<double>(daemon.voluntarySwitches() - before);
    result.bar = Bar::atMost(0);
    result.remark = QStringLiteral("in 30 s");
    return result;
}

Result wakeUpsWithTunnel()
{
    const session::Lab lab;
    const Daemon daemon(Daemon::Openvpn::Real);
    Client client;
    require(client.attachToNewEndpoint(), "the client could not attach");
    session::mustConnect(client, lab.server());
    client.heartbeat();
    vpncore::waitUntil(kSettle);

    const qint64 before = daemon.voluntarySwitches();
    for (int n = 0; n < kHeartbeats; ++n) {
        vpncore::waitUntil(kHeartbeatPeriod);
        client.heartbeat();
    }
    vpncore::waitUntil(kSettle);
    const qint64 switches = daemon.voluntarySwitches() - before;
    session::mustDisconnect(client);

    Result result;
    result.unit = QStringLiteral("wake-ups");
    result.measured = static_cast<double>(switches) / kHeartbeats;
    result.bar = Bar::atMost(4);
    result.remark = QStringLiteral("each heartbeat, of %1 in 30 s").arg(kHeartbeats);
    return result;
}

Result threads()
{
    const Daemon daemon;
    int most = daemon.threads();
    Client client;
    require(client.attachToNewEndpoint(), "the client could not attach");
    client.connectUdp(session::standIn(QStringLiteral("connects")));
    while (client.answers().isEmpty()) {
        vpncore::waitUntil(5ms);
        most = std::max(most, daemon.threads());
    }
    require(client.outcome() == QLatin1String("success"), "the connect failed");
    client.disconnectTunnel();
    while (client.answers().size() < 2) {
        vpncore::waitUntil(1ms);
        most = std::max(most, daemon.threads());
    }
    Result result;
    result.unit = QStringLiteral("thread");
    result.measured = most;
    result.bar = Bar::atMost(1);
    result.remark = QStringLiteral("looked at all through a connect and a disconnect");
    return result;
}
