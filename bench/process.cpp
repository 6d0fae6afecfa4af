#include "subjects.h"

#include "macplatform.h"
#include "measures.h"
#include "standins.h"
#include "vpnlab.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>

#include <algorithm>
#include <unistd.h>

namespace {

/// The baseline for waits: starts "sleep" and spins over processEvents() until it has ended.
/// @return the processor time of this process in milliseconds.
double spin(int seconds)
{
    return processorTimeOf(getpid(), [seconds] {
        QProcess sleep;
        sleep.start("sleep", {QString::number(seconds)});
        while (sleep.state() != QProcess::NotRunning)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 100);
        require(sleep.error() == QProcess::UnknownError, "there is no sleep");
    });
}

Measurement silentConnect()
{
    const Daemon daemon;
    AttachedClient client;
    const double measured = processorTimeOf(daemon.pid(), [&client] {
        client.timeOf([&] { client.connectUdp(standins::serverFor("silent")); });
    });
    require(client.outcome() == "warning.open_vpn_server_does_not_respond",
            "the silent server got another answer");
    return {{measured}, {spin(10)}, {}};
}

Measurement ignoredSigterm()
{
    const Daemon daemon;
    AttachedClient client;
    client.connectTunnel(standins::serverFor("ignores-term"));
    const double measured = processorTimeOf(daemon.pid(), [&client] {
        require(client.endTunnel() > 15'000, "openvpn did not ignore SIGTERM");
    });
    return {{measured}, {spin(15)}, {}};
}

Measurement runProcess()
{
    const double measured = processorTimeOf(getpid(), [] {
        QString output;
        require(vpncore::MacPlatform::runProcess("sleep 5", 10, output) == 0,
                "sleep did not run to its end");
    });
    return {{measured}, {spin(5)}, {}};
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
    return {{wakeUpsOf(daemon) - before}, {}, "in 30 s"};
}

Measurement wakeUpsWithTunnel()
{
    constexpr int kHeartbeats = 3;
    const Daemon daemon(DaemonProcess::Openvpn::Real);
    needServers();
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
    return {{wakeUps / kHeartbeats}, {}, QString("each heartbeat, of %1 in 30 s").arg(kHeartbeats)};
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
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, &look, [&] {
        threads = std::max(threads, measures::statusOf(daemon.pid(), "Threads"));
    });
    look.start(1);
    client.connectTunnel(standins::serverFor("connects"));
    client.endTunnel();
    return {{static_cast<double>(threads)}, {}, "looked at all through a connect and a disconnect"};
}

} // namespace

Rows processRows()
{
    return {{"1", silentConnect},      {"2a", ignoredSigterm},
            {"2b", runProcess},        {"3a", wakeUpsWithoutClient},
            {"3b", wakeUpsWithTunnel}, {"8", start},
            {"9a", idleMemory},        {"10", threads}};
}
