#include "command.h"

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

constexpr auto kLivePeriod = 100ms;
constexpr auto kLinePeriod = 5s;

} // namespace

Command::Command(const Options &options, Report &report)
    : m_options(options)
    , m_report(report)
    , m_session(options.limits)
{
    m_answerLimit.setSingleShot(true);
    connect(&m_answerLimit, &QTimer::timeout, this, &Command::giveUpWaiting);
    connect(&m_session, &VpnSession::failed, this, &Command::finishWith);
    for (const auto signal : {&VpnSession::reached, &VpnSession::opened})
        connect(&m_session, signal, this, &Command::answerArrived);
    connect(&m_progress, &QTimer::timeout, this,
            [this] { m_report.waiting(std::chrono::milliseconds(m_sinceRequest.elapsed())); });
    reportWaiting();
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

void Command::reportWaiting()
{
    m_sinceRequest.start();
    m_progress.start(m_report.isLive() ? std::chrono::milliseconds(kLivePeriod) : kLinePeriod);
}

void Command::awaitAnswer()
{
    m_answerLimit.start(m_options.answerLimit);
    reportWaiting();
}

std::chrono::milliseconds Command::answerArrived()
{
    m_answerLimit.stop();
    m_progress.stop();
    return std::chrono::milliseconds(m_sinceRequest.elapsed());
}

void Command::giveUpWaiting()
{
    finishWith(lateAnswer());
}

Problem Command::lateAnswer() const
{
    return {ExitCode::NoAnswer,
            QStringLiteral("The daemon did not answer the command within %1 seconds.")
                .arg(m_options.answerLimit.count()),
            QStringLiteral("It may be busy with other clients, or does not know the command; "
                           "--timeout waits longer, the daemon's log may say more.")};
}

void Command::finish(ExitCode exitCode)
{
    if (m_isFinished)
        return;
    m_isFinished = true;
    answerArrived();
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
