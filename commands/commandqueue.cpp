#include "commandqueue.h"

#include <chrono>
#include <utility>

namespace {

using namespace std::chrono_literals;

/// After which a command that may not begin yet asks again.
constexpr auto kPutOffTime = 100ms;

/// What is left to a client for reading one answer, when it has very many to read. Thousands in one
/// go would be more than a connection holds for its client.
constexpr auto kAnswerTime = 1ms;

} // namespace

CommandQueue::CommandQueue(const QSharedPointer<CommandTotals> &totals, QObject *parent)
    : QObject(parent)
    , m_totals(totals)
{
    m_turn.setSingleShot(true);
    connect(&m_turn, &QTimer::timeout, this, &CommandQueue::runNext);
}

void CommandQueue::add(Command command, const VpnServerInformation &server)
{
    if (m_waiting.size() >= kMaxWaiting)
        Q_EMIT overtaken(m_waiting.dequeue());
    m_waiting.enqueue(command);
    m_server = command == Command::Disconnect ? VpnServerInformation() : server;
    if (!m_turn.isActive())
        m_turn.start(0ms);
}

void CommandQueue::overtakeWaiting()
{
    m_server = {};
    while (!m_waiting.isEmpty())
        Q_EMIT overtaken(m_waiting.dequeue());
}

void CommandQueue::runNext()
{
    if (m_waiting.isEmpty())
        return;
    if (m_running != Command::None) { // and its wait is where this is called from
        overtakeRunning();
        return;
    }
    if (!m_totals->mayBegin()) {
        m_turn.start(kPutOffTime);
        return;
    }

    m_totals->begin();
    m_running = m_waiting.dequeue();
    m_isRunningOvertaken = false;
    if (m_running == Command::Disconnect)
        Q_EMIT due(m_running, {});
    else if (m_waiting.isEmpty())
        Q_EMIT due(m_running, std::exchange(m_server, {}));
    else
        Q_EMIT overtaken(m_running);
    m_running = Command::None;
    m_totals->end();

    if (!m_waiting.isEmpty())
        m_turn.start(kAnswerTime);
}

void CommandQueue::overtakeRunning()
{
    if (m_running == Command::Disconnect || std::exchange(m_isRunningOvertaken, true))
        return;
    Q_EMIT attemptOvertaken();
}
