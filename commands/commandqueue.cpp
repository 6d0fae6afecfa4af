#include "commandqueue.h"

#include <chrono>
#include <utility>

namespace {

using namespace std::chrono_literals;

/// A command that may not begin yet asks again after this time.
constexpr auto kPutOffTime = 100ms;

/// The pause between two answers. It lets the client read: a connection does not hold thousands of
/// unread ones.
constexpr auto kAnswerTime = 1ms;

} // namespace

CommandQueue::CommandQueue(const QSharedPointer<CommandTotals> &totals, quint32 user,
                           const std::function<bool()> &hasTunnel, QObject *parent)
    : QObject(parent)
    , m_totals(totals)
{
    m_totals->add(this, user, hasTunnel);
    m_turn.setSingleShot(true);
    connect(&m_turn, &QTimer::timeout, this, &CommandQueue::runNext);
}

CommandQueue::~CommandQueue()
{
    m_totals->remove(this);
}

void CommandQueue::add(Command command, const VpnServerInformation &server)
{
    if (m_waiting.size() >= kMaxWaiting)
        Q_EMIT overtaken(m_waiting.dequeue());
    m_waiting.enqueue(command);
    m_server = command == Command::Disconnect ? VpnServerInformation() : server;
    if (!m_turn.isActive() || std::exchange(m_isPutOff, false))
        m_turn.start(0ms);
}

void CommandQueue::overtakeWaiting()
{
    m_totals->withdraw(this);
    m_server = {};
    while (!m_waiting.isEmpty())
        Q_EMIT overtaken(m_waiting.dequeue());
}

void CommandQueue::runNext()
{
    if (m_waiting.isEmpty())
        return;
    if (m_running != Command::None) { // this is called from inside its wait
        if (m_running != Command::Disconnect && !std::exchange(m_isRunningOvertaken, true))
            Q_EMIT attemptOvertaken();
        return;
    }
    const bool isConnect = m_waiting.head() != Command::Disconnect;
    const bool isOvertaken = isConnect && m_waiting.size() > 1;
    m_isPutOff = isConnect && !isOvertaken && !m_totals->mayConnect(this);
    if (m_isPutOff) {
        m_turn.start(kPutOffTime);
        return;
    }

    m_running = m_waiting.dequeue();
    m_isRunningOvertaken = false;
    if (isOvertaken) {
        m_totals->withdraw(this);
        Q_EMIT overtaken(m_running);
    } else if (isConnect && m_totals->hasTooManyTunnels(this)) {
        Q_EMIT refused(m_running);
    } else {
        m_totals->begin(this, isConnect);
        // Behind a disconnect, the record belongs to a command that still waits.
        Q_EMIT due(m_running, isConnect ? std::exchange(m_server, {}) : VpnServerInformation());
        m_totals->end(this, isConnect);
    }
    m_running = Command::None;

    if (!m_waiting.isEmpty())
        m_turn.start(kAnswerTime);
}
