#include "connectcommand.h"

#include <QtCore/QJsonArray>

#include <algorithm>

#include <net/if.h>
#include <unistd.h>

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kSameStopRequest = 1s;

QString connectMessage(Transport transport)
{
    return transport == Transport::Udp ? QStringLiteral(R"({"type":"connect","cmd":"ovpnUdp"})")
                                       : QStringLiteral(R"({"type":"connect","cmd":"ovpnTcp"})");
}

} // namespace

ConnectCommand::ConnectCommand(const Options &options, Report &report)
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

void ConnectCommand::start()
{
    const TargetList list = readTargets(m_options);
    if (!list.note.isEmpty())
        m_report.note(list.note);
    if (!list.weaknesses.isEmpty()) {
        reportWeaknesses(list.weaknesses);
        if (!m_options.acceptWeaker) {
            throw wrongUse(QStringLiteral("The profile asks for more than the daemon can do."),
                           QStringLiteral("Add --accept-weaker to connect without it."));
        }
    }
    m_targets = list.targets;
    for (const Target &target : qAsConst(m_targets))
        checkLength(connectMessage(target.transport), target.server);
    openNewEndpoint();
}

void ConnectCommand::opened()
{
    // From the first heartbeat on the daemon expects more of them.
    if (!m_options.detach)
        keepAlive();
    tryNextTarget();
}

void ConnectCommand::reportWeaknesses(const Weaknesses &weaknesses)
{
    QJsonArray directives;
    QStringList lines;
    for (const Weakness &weakness : weaknesses) {
        directives.append(QJsonObject{{QStringLiteral("directive"), weakness.directive},
                                      {QStringLiteral("text"), weakness.text}});
        lines.append(QStringLiteral("Without %1: %2").arg(weakness.directive, weakness.text));
    }
    m_report.print("weaker", {{QStringLiteral("directives"), directives}},
                   lines.join(QLatin1Char('\n')), STDERR_FILENO);
}

void ConnectCommand::stop()
{
    const bool isSameRequest =
        m_sinceStop.isValid() && !m_sinceStop.hasExpired(kSameStopRequest.count());
    if (m_phase != Phase::Closing || !m_exitCode || isSameRequest)
        return hangUp();
    leave(ExitCode::Interrupted);
}

void ConnectCommand::hangUp()
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

void ConnectCommand::giveUpWaiting()
{
    if (m_phase == Phase::Opening)
        return Command::giveUpWaiting();
    if (m_phase == Phase::Closing)
        return leave(ExitCode::NoAnswer);
    m_report.problem(lateAnswer());
    closeAfterFailure(ExitCode::NoAnswer);
}

void ConnectCommand::leave(ExitCode exitCode)
{
    finishWith({exitCode,
                QStringLiteral("The daemon has not said that the tunnel is down: it may still be "
                               "up, and the DNS settings may be the tunnel's."),
                QStringLiteral("\"vpnctl disconnect --endpoint %1\" takes the tunnel down.")
                    .arg(m_endpoint)});
}

void ConnectCommand::tryNextTarget()
{
    m_phase = Phase::Connecting;
    const Target &target = m_targets.at(m_attempt++);
    QString text = QStringLiteral("Connecting to %1, port %2, over %3")
                       .arg(target.server.host)
                       .arg(target.port())
                       .arg(transportName(target.transport));
    if (m_targets.size() > 1)
        text += QStringLiteral(" (server %1 of %2)").arg(m_attempt).arg(m_targets.size());
    m_report.print("connecting",
                   {{QStringLiteral("host"), target.server.host},
                    {QStringLiteral("port"), target.port()},
                    {QStringLiteral("transport"), transportName(target.transport).toLower()},
                    {QStringLiteral("attempt"), m_attempt},
                    {QStringLiteral("attempts"), m_targets.size()}},
                   text);
    m_before = tunnelInterfaces();
    send(connectMessage(target.transport), target.server);
}

void ConnectCommand::answered(const QString &message, const OperationResult &result)
{
    const bool isConnect = commandOf(message) == QLatin1String("connect");
    if (m_phase == Phase::Closing) {
        if (isConnect) // the attempt that was given up
            return;
        m_report.answer(message, result, answerArrived());
        if (m_exitCode)
            finish(result.success ? *m_exitCode : ExitCode::Failed);
        else
            connectLater();
    } else if (!isConnect) {
        m_report.print("takenDown", {{QStringLiteral("endpoint"), m_endpoint}},
                       QStringLiteral("Another client of endpoint %1 has taken the tunnel down.")
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
        else if (m_attempt < m_targets.size())
            tryNextTarget();
        else
            closeAfterFailure(ExitCode::Failed);
    } else {
        // Somebody else connects this endpoint anew, for which the daemon takes the tunnel down.
        m_report.answer(message, result, std::nullopt);
        if (!result.success)
            close(ExitCode::Failed);
    }
}

void ConnectCommand::handleConnected()
{
    if (m_options.detach) {
        m_report.print("detached", {{QStringLiteral("endpoint"), m_endpoint}},
                       QStringLiteral("The tunnel is up and stays up. To take it down: "
                                      "vpnctl disconnect --endpoint %1")
                           .arg(m_endpoint));
        return finish(ExitCode::Done);
    }
    m_phase = Phase::Holding;
    QVector<TunnelInterface> appeared = tunnelInterfaces();
    for (const TunnelInterface &old : qAsConst(m_before)) {
        const auto isOld = [&old](const auto &tunnel) { return tunnel.index == old.index; };
        appeared.erase(std::remove_if(appeared.begin(), appeared.end(), isOld), appeared.end());
    }
    m_tunnel = appeared.size() == 1 ? appeared.constFirst() : TunnelInterface();
    QString text = QStringLiteral("The tunnel is up");
    if (appeared.size() == 1) {
        text += QStringLiteral(" on %1").arg(m_tunnel.name);
    } else {
        m_report.note(QStringLiteral("The tunnel is not watched: %1 network interfaces came up "
                                     "with it, and one would be its own.")
                          .arg(appeared.size()));
    }
    text += QLatin1Char('.');
    // In a background job, Ctrl-C goes elsewhere.
    if (::tcgetpgrp(STDOUT_FILENO) == ::getpgrp())
        text += QStringLiteral(" Ctrl-C takes it down.");
    m_report.print(
        "up",
        {{QStringLiteral("endpoint"), m_endpoint}, {QStringLiteral("interface"), m_tunnel.name}},
        text);
    m_sinceUp.start();
    m_sinceLook.start();
    m_look.start();
}

void ConnectCommand::lookAtTunnel()
{
    // The clock is that of the daemon's timer: it stands still for both while the machine sleeps.
    const std::chrono::milliseconds silence(m_sinceLook.restart());
    if (silence > m_options.limits.silence) {
        lose(QStringLiteral("vpnctl was stopped for %1 s, and the daemon takes a tunnel down when "
                            "it hears nothing for 30 s.")
                 .arg(silence / 1s));
    } else if (!m_tunnel.name.isEmpty()
               && ::if_nametoindex(m_tunnel.name.toLocal8Bit()) != m_tunnel.index) {
        lose(QStringLiteral("its interface %1 is not there any more.").arg(m_tunnel.name));
    }
}

void ConnectCommand::lose(const QString &reason)
{
    m_report.print(
        "gone", {{QStringLiteral("endpoint"), m_endpoint}, {QStringLiteral("text"), reason}},
        QStringLiteral("The tunnel has gone: %1 Traffic goes out without it.").arg(reason));
    if (m_sinceUp.hasExpired(m_options.limits.longestPause.count()))
        m_nextPause = m_options.limits.firstPause;
    closeAfterFailure(ExitCode::Failed);
}

void ConnectCommand::closeAfterFailure(ExitCode exitCode)
{
    if (m_sinceUp.isValid() && !m_options.once)
        close({});
    else
        close(exitCode);
}

void ConnectCommand::close(std::optional<ExitCode> exitCode)
{
    m_phase = Phase::Closing;
    m_exitCode = exitCode;
    m_look.stop();
    m_report.print("disconnecting", {}, QStringLiteral("Disconnecting"));
    send(QLatin1String(kDisconnectMessage));
}

void ConnectCommand::connectLater()
{
    m_phase = Phase::Pausing;
    m_report.print("retrying", {{QStringLiteral("seconds"), static_cast<int>(m_nextPause / 1s)}},
                   QStringLiteral("Connecting again in %1 s").arg(m_nextPause / 1s));
    m_pause.start(m_nextPause);
    m_nextPause = std::min(2 * m_nextPause, m_options.limits.longestPause);
}

} // namespace vpnctl
