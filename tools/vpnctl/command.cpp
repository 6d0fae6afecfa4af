#include "command.h"

#include "connectcommand.h"
#include "smallcommands.h"

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

constexpr auto kLivePeriod = 100ms;
constexpr auto kLinePeriod = 5s;

} // namespace

std::unique_ptr<Command> Command::create(const Options &options, Report &report)
{
    if (options.command == Options::Command::Connect)
        return std::make_unique<ConnectCommand>(options, report);
    return createSmallCommand(options, report);
}

Command::Command(const Options &options, Report &report)
    : m_options(options)
    , m_report(report)
    , m_session(options.limits)
{
    m_answerLimit.setSingleShot(true);
    connect(&m_answerLimit, &QTimer::timeout, this, &Command::giveUpWaiting);
    connect(&m_progress, &QTimer::timeout, this, &Command::reportProgress);
    connect(&m_session, &VpnSession::failed, this, &Command::finishWith);
}

Command::~Command() = default;

void Command::stop()
{
    finish(ExitCode::Interrupted);
}

void Command::hangUp()
{
    stop();
}

void Command::awaitAnswer(std::chrono::seconds longest)
{
    m_longest = longest;
    m_sinceCommand.start();
    m_answerLimit.start(m_options.answerLimit);
    m_progress.start(m_report.isLive() ? std::chrono::milliseconds(kLivePeriod) : kLinePeriod);
}

std::chrono::milliseconds Command::answerArrived()
{
    m_answerLimit.stop();
    m_progress.stop();
    return std::chrono::milliseconds(m_sinceCommand.isValid() ? m_sinceCommand.elapsed() : 0);
}

QString Command::activity(std::chrono::milliseconds) const
{
    return QStringLiteral("waiting for the daemon's answer");
}

void Command::reportProgress()
{
    const std::chrono::milliseconds elapsed(m_sinceCommand.elapsed());
    m_report.waiting(activity(elapsed), elapsed, m_longest);
}

void Command::giveUpWaiting()
{
    finishWith({ExitCode::NoAnswer,
                QStringLiteral("The daemon did not answer the command within %1 seconds.")
                    .arg(m_options.answerLimit.count()),
                QStringLiteral("It may be busy with other clients, or does not know the command; "
                               "--timeout waits longer, the daemon's log may say more.")});
}

void Command::finish(ExitCode exitCode)
{
    if (m_isFinished)
        return;
    m_isFinished = true;
    m_answerLimit.stop();
    m_progress.stop();
    Q_EMIT finished(exitCode);
}

void Command::finishWith(const Problem &problem)
{
    if (m_isFinished)
        return;
    m_report.problem(problem);
    finish(problem.exitCode);
}

} // namespace vpnctl
