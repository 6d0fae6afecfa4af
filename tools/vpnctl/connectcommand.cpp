#include "command.h"
#include "observation.h"
#include "target.h"

#include <QtCore/QJsonArray>

#include <unistd.h>

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kSameStopRequest = 1s;

/// Brings a tunnel up, trying one server after the other, and holds it until it is told to stop. A
/// tunnel that goes meanwhile is brought up again, unless Options::once says no.
/// Whatever happens, nothing of it stays behind in the daemon: the tunnel, or what a failed attempt
/// left running, is taken down before the command finishes. With Options::detach only a success
/// stays.
class ConnectCommand : public Command
{
public:
    ConnectCommand(const Options &options, Report &report)
        : Command(options, report)
        , m_nextPause(options.limits.firstPause)
    {
        m_look.setInterval(options.limits.lookPeriod);
        connect(&m_look, &QTimer::timeout, this, &ConnectCommand::lookAtTunnel);
        m_pause.setSingleShot(true);
        connect(&m_pause, &QTimer::timeout, this, [this] {
            m_attempt = 0;
            tryNextTarget();
        });
        for (QTimer *timer : {&m_look, &m_pause})
            connect(this, &Command::finished, timer, &QTimer::stop);
    }

    void start() override
    {
        m_targets = readTargets(m_options);
        if (!m_targets.notCarriedOver.isEmpty()) {
            m_report.note(QString("Not carried over from the profile: %1.")
                              .arg(m_targets.notCarriedOver.join(", ")));
        }
        if (!m_targets.weaknesses.isEmpty()) {
            reportWeaknesses();
            if (!m_options.acceptWeaker) {
                throw wrongUse("The profile asks for more than the daemon can do.",
                               "Add --accept-weaker to connect without it.");
            }
        }
        for (const Remote &remote : qAsConst(m_targets.remotes))
            checkLength(messageFor(remote), recordFor(remote));
        openNewEndpoint();
    }

    /// Takes the tunnel down and finishes. When that is under way already, finishes at once,
    /// except right after the first request: signals to a whole group of processes come twice.
    void stop() override
    {
        const bool isSameRequest =
            m_sinceStop.isValid() && !m_sinceStop.hasExpired(kSameStopRequest.count());
        if (m_phase != Phase::Closing || !m_exitCode || isSameRequest)
            return hangUp();
        leave(ExitCode::Interrupted);
    }

    void hangUp() override
    {
        if (m_phase == Phase::Closing && m_exitCode)
            return;
        m_sinceStop.start();
        if (m_phase == Phase::Opening || m_phase == Phase::Pausing)
            finish(ExitCode::Interrupted);
        else if (m_phase == Phase::Closing)
            m_exitCode = ExitCode::Interrupted;
        else
            close(m_phase == Phase::Holding ? ExitCode::Done : ExitCode::Interrupted);
    }

private:
    enum class Phase { Opening, Connecting, Holding, Closing, Pausing };

    void opened() override
    {
        // From the first heartbeat on the daemon expects more of them.
        if (!m_options.detach)
            keepAlive();
        tryNextTarget();
    }

    void reportWeaknesses()
    {
        QJsonArray directives;
        QStringList lines;
        for (const auto &[directive, text] : qAsConst(m_targets.weaknesses)) {
            directives.append(QJsonObject{{"directive", directive}, {"text", text}});
            lines.append(QString("Without %1: %2").arg(directive, text));
        }
        m_report.print("weaker", {{"directives", directives}}, lines.join('\n'), STDERR_FILENO);
    }

    static QString messageFor(const Remote &remote)
    {
        return remote.transport == Transport::Udp ? R"({"type":"connect","cmd":"ovpnUdp"})"
                                                  : R"({"type":"connect","cmd":"ovpnTcp"})";
    }

    VpnServerInformation recordFor(const Remote &remote) const
    {
        VpnServerInformation server = m_targets.server;
        server.host = remote.host;
        server.udpPort = server.tcpPort = remote.port; // of which the daemon reads one
        return server;
    }

    /// Takes an attempt back before the command finishes: the daemon may still bring it up.
    void giveUpWaiting() override
    {
        if (m_phase == Phase::Opening)
            return Command::giveUpWaiting();
        if (m_phase == Phase::Closing)
            return leave(ExitCode::NoAnswer);
        m_report.problem(lateAnswer());
        closeAfterFailure(ExitCode::NoAnswer);
    }

    /// Finishes without an answer to the disconnect.
    void leave(ExitCode exitCode)
    {
        finishWith({exitCode,
                    "The daemon has not said that the tunnel is down: it may still be "
                    "up, and the DNS settings may be the tunnel's.",
                    QString("\"vpnctl disconnect --endpoint %1\" takes the tunnel down.")
                        .arg(m_endpoint)});
    }

    void tryNextTarget()
    {
        m_phase = Phase::Connecting;
        const Remote &remote = m_targets.remotes.at(m_attempt++);
        const int attempts = m_targets.remotes.size();
        const QString transport = transportName(*remote.transport);
        QString text = QString("Connecting to %1, port %2, over %3")
                           .arg(remote.host)
                           .arg(remote.port)
                           .arg(transport);
        if (attempts > 1)
            text += QString(" (server %1 of %2)").arg(m_attempt).arg(attempts);
        m_report.print("connecting",
                       {{"host", remote.host},
                        {"port", remote.port},
                        {"transport", transport.toLower()},
                        {"attempt", m_attempt},
                        {"attempts", attempts}},
                       text);
        m_before = tunnelInterfaces();
        send(messageFor(remote), recordFor(remote));
    }

    void answered(const QString &message, const OperationResult &result) override
    {
        const bool isConnect = commandOf(message) == "connect";
        if (m_phase == Phase::Closing) {
            if (isConnect) // the attempt that was given up
                return;
            m_report.answer(message, result, answerArrived());
            if (m_exitCode)
                finish(result.success ? *m_exitCode : ExitCode::Failed);
            else
                connectLater();
        } else if (!isConnect) {
            m_report.print("takenDown", {{"endpoint", m_endpoint}},
                           QString("Another client of endpoint %1 has taken the tunnel down.")
                               .arg(m_endpoint));
            // The attempt that it ended has been answered before, as failed, so the next server is
            // being tried: against the other's wish.
            if (m_phase == Phase::Connecting)
                close(ExitCode::Failed);
            else
                finish(ExitCode::Done);
        } else if (m_phase == Phase::Connecting) {
            m_report.answer(message, result, answerArrived());
            if (result.success)
                handleConnected();
            else if (m_attempt < m_targets.remotes.size())
                tryNextTarget();
            else
                closeAfterFailure(ExitCode::Failed);
        } else {
            // Somebody else connects this endpoint anew, for which the daemon takes the tunnel
            // down.
            m_report.answer(message, result, std::nullopt);
            if (!result.success)
                close(ExitCode::Failed);
        }
    }

    void handleConnected()
    {
        if (m_options.detach) {
            m_report.print("detached", {{"endpoint", m_endpoint}},
                           QString("The tunnel is up and stays up. To take it down: "
                                   "vpnctl disconnect --endpoint %1")
                               .arg(m_endpoint));
            return finish(ExitCode::Done);
        }
        m_phase = Phase::Holding;
        QVector<TunnelInterface> appeared = tunnelInterfaces();
        for (const TunnelInterface &old : qAsConst(m_before))
            appeared.removeAll(old);
        m_tunnel = {};
        QString text = "The tunnel is up";
        if (appeared.size() == 1) {
            m_tunnel = appeared.constFirst();
            text += " on " + m_tunnel.name;
        } else {
            m_report.note(QString("The tunnel is not watched: %1 network interfaces came up "
                                  "with it, and one would be its own.")
                              .arg(appeared.size()));
        }
        text += '.';
        // In a background job, Ctrl-C goes elsewhere.
        if (::tcgetpgrp(STDOUT_FILENO) == ::getpgrp())
            text += " Ctrl-C takes it down.";
        m_report.print("up", {{"endpoint", m_endpoint}, {"interface", m_tunnel.name}}, text);
        m_sinceUp.start();
        m_sinceLook.start();
        m_look.start();
    }

    void lookAtTunnel()
    {
        // The clock is that of the daemon's timer: it stands still for both while the machine
        // sleeps.
        const std::chrono::milliseconds silence(m_sinceLook.restart());
        if (silence > m_options.limits.silence) {
            lose(QString("vpnctl was stopped for %1 s, and the daemon takes a tunnel down when "
                         "it hears nothing for 30 s.")
                     .arg(silence / 1s));
        } else if (!m_tunnel.name.isEmpty() && !tunnelInterfaces().contains(m_tunnel)) {
            lose(QString("its interface %1 is not there any more.").arg(m_tunnel.name));
        }
    }

    void lose(const QString &reason)
    {
        m_report.print("gone", {{"endpoint", m_endpoint}, {"text", reason}},
                       QString("The tunnel has gone: %1 Traffic goes out without it.").arg(reason));
        if (m_sinceUp.hasExpired(m_options.limits.longestPause.count()))
            m_nextPause = m_options.limits.firstPause;
        closeAfterFailure(ExitCode::Failed);
    }

    void closeAfterFailure(ExitCode exitCode)
    {
        const bool connectsAgain = m_sinceUp.isValid() && !m_options.once;
        close(connectsAgain ? std::optional<ExitCode>() : exitCode);
    }

    void close(std::optional<ExitCode> exitCode)
    {
        m_phase = Phase::Closing;
        m_exitCode = exitCode;
        m_look.stop();
        m_report.print("disconnecting", {}, "Disconnecting");
        send(kDisconnectMessage);
    }

    void connectLater()
    {
        m_phase = Phase::Pausing;
        m_report.print("retrying", {{"seconds", static_cast<int>(m_nextPause / 1s)}},
                       QString("Connecting again in %1 s").arg(m_nextPause / 1s));
        m_pause.start(m_nextPause);
        m_nextPause = std::min(2 * m_nextPause, m_options.limits.longestPause);
    }

    Phase m_phase = Phase::Opening;
    TargetList m_targets;
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

} // namespace

std::unique_ptr<Command> makeConnectCommand(const Options &options, Report &report)
{
    return std::make_unique<ConnectCommand>(options, report);
}

} // namespace vpnctl
