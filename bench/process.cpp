#include "subjects.h"

#include "macplatform.h"
#include "measures.h"
#include "standins.h"
#include "vpnlab.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <unistd.h>

namespace {

/// The baseline for waits: starts "sleep" and spins over processEvents() until it has ended.
/// @return the processor time of this process in milliseconds.
double processorTimeOfSpinning(int seconds)
{
    QProcess sleep;
    const double before = processorTime(getpid());
    sleep.start(QStringLiteral("sleep"), {QString::number(seconds)});
    while (sleep.state() != QProcess::NotRunning)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 100);
    require(sleep.error() == QProcess::UnknownError, "there is no sleep");
    return processorTime(getpid()) - before;
}

Measurement silentConnect()
{
    const Daemon daemon;
    AttachedClient client;
    const double before = processorTime(daemon.pid());
    client.timeOf([&] { client.connectUdp(standins::serverFor(QStringLiteral("silent"))); });
    const double measured = processorTime(daemon.pid()) - before;
    require(client.outcome() == QLatin1String("warning.open_vpn_server_does_not_respond"),
            "the silent server got another answer");
    return {{measured}, {processorTimeOfSpinning(10)}, {}};
}

Measurement ignoredSigterm()
{
    const Daemon daemon;
    AttachedClient client;
    client.connectTunnel(standins::serverFor(QStringLiteral("ignores-term")));
    const double before = processorTime(daemon.pid());
    require(client.endTunnel() > 15'000, "openvpn did not ignore SIGTERM");
    return {{processorTime(daemon.pid()) - before}, {processorTimeOfSpinning(15)}, {}};
}

Measurement runProcess()
{
    const double before = processorTime(getpid());
    QString output;
    require(vpncore::MacPlatform::runProcess(QStringLiteral("sleep 5"), 10, output) == 0,
            "sleep did not run to its end");
    return {{processorTime(getpid()) - before}, {processorTimeOfSpinning(5)}, {}};
}

double wakeUpsOf(const Program &program)
{
    return static_cast<double>(measures::statusOf(program.pid(), "voluntary_ctxt_switches"));
}

Measurement wakeUpsWithoutClient()
{
    const Daemon daemon;
    vpncore::waitUntil(2s);
    const double before = wakeUpsOf(daemon);
    vpncore::waitUntil(30s);
    return {{wakeUpsOf(daemon) - before}, {}, QStringLiteral("in 30 s")};
}

Measurement wakeUpsWithTunnel()
{
    constexpr int kHeartbeats = 3;
    const Daemon daemon(DaemonProcess::Openvpn::Real);
    require(vpnlab::up(), "the OpenVPN servers could not be started");
    AttachedClient client;
    client.connectTunnel(vpnlab::server());
    client.heartbeat();
    vpncore::waitUntil(2s);

    const double before = wakeUpsOf(daemon);
    for (int n = 0; n < kHeartbeats; ++n) {
        vpncore::waitUntil(10s);
        client.heartbeat();
    }
    vpncore::waitUntil(2s);
    const double wakeUps = wakeUpsOf(daemon) - before;
    client.endTunnel();
    return {{wakeUps / kHeartbeats},
            {},
            QStringLiteral("each heartbeat, of %1 in 30 s").arg(kHeartbeats)};
}

Measurement start()
{
    Measurement found{{}, {}, kWorst};
    for (int n = 0; n < 30; ++n) {
        found.baseline.append(runRestoreScript());
        found.samples.append(Daemon().startTime());
    }
    return found;
}

/// Alone: two at the same time would share pages with each other.
template<typename AnyProgram>
double idleMemoryOf()
{
    const AnyProgram program;
    vpncore::waitUntil(1s);
    return memoryOf(program.pid(), "Pss");
}

Measurement idleMemory()
{
    Measurement found;
    for (int n = 0; n < 5; ++n) {
        found.baseline.append(idleMemoryOf<MinimalHost>());
        found.samples.append(idleMemoryOf<Daemon>());
    }
    return found;
}

Measurement threads()
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
    require(client.answers().last().result.success, "the connect failed");
    client.disconnectTunnel();
    pollUntil(hasAnswers(2), "no answer came");
    return {{static_cast<double>(threads)},
            {},
            QStringLiteral("looked at all through a connect and a disconnect")};
}

} // namespace

Rows processRows()
{
    return {{"1", silentConnect},      {"2a", ignoredSigterm},
            {"2b", runProcess},        {"3a", wakeUpsWithoutClient},
            {"3b", wakeUpsWithTunnel}, {"8", start},
            {"9a", idleMemory},        {"10", threads}};
}
