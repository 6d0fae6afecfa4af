#include "connectcommand.h"

#include "targetreader.h"

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

constexpr auto kConnectLimit = 16s; ///< the daemon's own

constexpr auto kStartTime = 1s;
constexpr auto kSameStopRequest = 1s;

} // namespace

ConnectCommand::ConnectCommand(const Options &options, Report &report)
    : Command(options, report)
{
    connect(&session(), &VpnSession::endpointCreated, this, [this](int endpoint) {
        m_endpoint = endpoint;
        this->report().endpoint(endpoint);
    });
    connect(&session(), &VpnSession::opened, this, [this] {
        // From the first heartbeat on the daemon expects more of them.
        if (!this->options().detach)
            session().keepAlive();
        tryNextTarget();
    });
    connect(&session(), &VpnSession::answered, this, &ConnectCommand::handleAnswer);
    connect(&session(), &VpnSession::lapsed, this, &ConnectCommand::handleLapse);
}

void ConnectCommand::start()
{
    const TargetList list = readTargets(options());
    for (const QString &note : list.notes)
        report().note(note);
    if (!list.weaknesses.isEmpty()) {
        report().weaknesses(list.weaknesses);
        if (!options().acceptWeaker) {
            throw wrongUse(QStringLiteral("The profile asks for more than the daemon can do."),
                           QStringLiteral("Add --accept-weaker to connect without it."));
        }
    }
    m_targets = list.targets;
    for (const Target &target : qAsConst(m_targets))
        VpnSession::checkLength(target);
    session().openNewEndpoint();
}

void ConnectCommand::stop()
{
    if (m_phase == Phase::Closing && !isSameStopRequest())
        finish(ExitCode::Interrupted);
    else
        hangUp();
}

bool ConnectCommand::isSameStopRequest() const
{
    return m_sinceStop.isValid()
        && !m_sinceStop.hasExpired(std::chrono::milliseconds(kSameStopRequest).count());
}

void ConnectCommand::hangUp()
{
    if (m_phase == Phase::Closing)
        return;
    m_sinceStop.start();
    if (m_phase == Phase::Opening)
        finish(ExitCode::Interrupted);
    else
        close(m_phase == Phase::Holding ? ExitCode::Done : ExitCode::Interrupted);
}

QString ConnectCommand::activity(std::chrono::milliseconds elapsed) const
{
    if (m_phase == Phase::Closing)
        return QStringLiteral("openvpn is stopping and the DNS settings are being restored");
    if (elapsed < kStartTime)
        return QStringLiteral("openvpn is starting");
    if (elapsed < kConnectLimit)
        return QStringLiteral("openvpn is calling the server");
    return QStringLiteral("the time is up, the daemon is about to answer");
}

void ConnectCommand::giveUpWaiting()
{
    const qint64 seconds = options().answerLimit.count();
    if (m_phase == Phase::Connecting) {
        report().problem(
            {ExitCode::NoAnswer,
             QStringLiteral("The daemon did not answer the command within %1 seconds.")
                 .arg(seconds),
             QStringLiteral("It may be busy with other clients; an attempt alone is given 16 "
                            "seconds, and --timeout waits longer.")});
        close(ExitCode::NoAnswer);
        return;
    }
    finishWith({ExitCode::NoAnswer,
                QStringLiteral("The daemon did not say within %1 seconds that the tunnel is down.")
                    .arg(seconds),
                QStringLiteral("It has the command and may still carry it out; its log may say "
                               "more.")});
}

void ConnectCommand::tryNextTarget()
{
    m_phase = Phase::Connecting;
    const Target &target = m_targets.at(m_attempt++);
    report().connecting(target, m_attempt, m_targets.size());
    session().startTunnel(target);
    awaitAnswer(kConnectLimit);
}

void ConnectCommand::handleAnswer(const QString &message, const OperationResult &result)
{
    const bool isConnect = commandOf(message) == QLatin1String("connect");
    switch (m_phase) {
    case Phase::Opening:
        break;
    case Phase::Connecting:
        if (!isConnect) {
            // Somebody else's disconnect. The attempt that it ended has been answered before, as
            // failed, so the next server is being tried: against the other's wish.
            report().takenDown(m_endpoint);
            close(ExitCode::Failed);
            break;
        }
        report().answer(message, result, answerArrived());
        if (result.success)
            handleConnected();
        else if (m_attempt < m_targets.size())
            tryNextTarget();
        else
            close(ExitCode::Failed);
        break;
    case Phase::Holding:
        handleAnswerWhileHolding(message, result);
        break;
    case Phase::Closing:
        if (isConnect) // the attempt that was given up
            break;
        report().answer(message, result, answerArrived());
        finish(result.success ? m_exitCode : ExitCode::Failed);
        break;
    }
}

void ConnectCommand::handleConnected()
{
    if (options().detach) {
        report().detached(m_endpoint);
        finish(ExitCode::Done);
        return;
    }
    m_phase = Phase::Holding;
    report().holding(m_endpoint);
}

void ConnectCommand::handleAnswerWhileHolding(const QString &message, const OperationResult &result)
{
    const bool isConnect = commandOf(message) == QLatin1String("connect");
    if (!isConnect) {
        report().takenDown(m_endpoint);
        finish(ExitCode::Done);
        return;
    }
    // Somebody else connects this endpoint anew, for which the daemon takes the tunnel down first.
    report().answer(message, result, std::nullopt);
    if (!result.success)
        close(ExitCode::Failed);
}

void ConnectCommand::handleLapse(std::chrono::milliseconds silence)
{
    if (m_phase == Phase::Closing)
        return;
    report().lapsed(m_endpoint, silence);
    // Somebody else's heartbeats may have kept the tunnel; what was reported is to be true then
    // too.
    close(ExitCode::Failed);
}

void ConnectCommand::close(ExitCode exitCode)
{
    m_phase = Phase::Closing;
    m_exitCode = exitCode;
    if (exitCode == ExitCode::Failed || exitCode == ExitCode::NoAnswer)
        report().cleaningUp();
    else
        report().disconnecting();
    session().stopTunnel();
    awaitAnswer(0s);
}

} // namespace vpnctl
