#pragma once

#include "command.h"
#include "observation.h"
#include "target.h"

namespace vpnctl {

/// Brings a tunnel up, trying one server after the other, and holds it until it is told to stop. A
/// tunnel that goes meanwhile is brought up again, unless Options::once says no.
/// Whatever happens, nothing of it stays behind in the daemon: the tunnel, or what a failed attempt
/// left running, is taken down before the command finishes. With Options::detach only a success
/// stays.
class ConnectCommand : public Command
{
    Q_OBJECT

public:
    ConnectCommand(const Options &options, Report &report);
    void start() override;

    /// Takes the tunnel down and finishes. When that is under way already, finishes at once,
    /// except right after the first request: signals to a whole group of processes come twice.
    void stop() override;

    void hangUp() override;
    bool isTiedToInput() const override { return !m_options.detach; }

private:
    enum class Phase { Opening, Connecting, Holding, Closing, Pausing };

    void opened() override;
    void answered(const QString &message, const OperationResult &result) override;

    /// Takes an attempt back before the command finishes: the daemon may still bring it up.
    void giveUpWaiting() override;

    void reportWeaknesses(const Weaknesses &weaknesses);
    void tryNextTarget();
    void handleConnected();
    void lookAtTunnel();
    void lose(const QString &reason);
    void closeAfterFailure(ExitCode exitCode);
    void close(std::optional<ExitCode> exitCode);
    void connectLater();

    /// Finishes without an answer to the disconnect.
    void leave(ExitCode exitCode);

    Phase m_phase = Phase::Opening;
    Targets m_targets;
    int m_attempt = 0;
    std::optional<ExitCode> m_exitCode; ///< Once the tunnel is down; without it, connect again.
    QElapsedTimer m_sinceStop;

    QVector<TunnelInterface> m_before; ///< the attempt
    TunnelInterface m_tunnel; ///< Without a name when it cannot be told which it is.
    QTimer m_look;
    QElapsedTimer m_sinceLook;
    QElapsedTimer m_sinceUp; ///< Valid as soon as the first tunnel was up.
    QTimer m_pause;
    std::chrono::milliseconds m_nextPause;
};

} // namespace vpnctl
