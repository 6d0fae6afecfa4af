#pragma once

#include "command.h"

#include <QtCore/QElapsedTimer>

namespace vpnctl {

/// Brings a tunnel up, trying one server after the other, and holds it until it is told to stop.
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
    bool isTiedToInput() const override { return !options().detach; }

protected:
    QString activity(std::chrono::milliseconds elapsed) const override;

    /// Takes an attempt back before the command finishes: the daemon may still bring it up.
    void giveUpWaiting() override;

private:
    enum class Phase { Opening, Connecting, Holding, Closing };

    void tryNextTarget();
    void handleAnswer(const QString &message, const OperationResult &result);
    void handleConnected();
    void handleAnswerWhileHolding(const QString &message, const OperationResult &result);
    void handleLapse(std::chrono::milliseconds silence);
    bool isSameStopRequest() const;
    void close(ExitCode exitCode);

    Phase m_phase = Phase::Opening;
    Targets m_targets;
    int m_attempt = 0;
    int m_endpoint = 0;
    ExitCode m_exitCode = ExitCode::Done; ///< Once the tunnel is down.
    QElapsedTimer m_sinceStop;
};

} // namespace vpnctl
