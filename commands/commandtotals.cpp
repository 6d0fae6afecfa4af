#include "commandtotals.h"

#include "peeruser.h"

#include <algorithm>

void CommandTotals::add(const void *client, quint32 user, const std::function<bool()> &hasTunnel)
{
    m_clients.insert(client, {user, hasTunnel});
}

void CommandTotals::remove(const void *client)
{
    withdraw(client);
    m_clients.remove(client);
}

bool CommandTotals::hasTooManyTunnels(const void *client) const
{
    const quint32 user = m_clients[client].user;
    int tunnels = 0;
    int tunnelsOfUser = 0;
    for (auto other = m_clients.begin(); other != m_clients.end(); ++other) {
        // The connect ends its own tunnel before it starts another.
        if (other.key() == client || !other->hasTunnel())
            continue;
        ++tunnels;
        tunnelsOfUser += other->user == user;
    }
    return tunnels >= m_limits.tunnels
        || (user != kRootUser && tunnelsOfUser >= m_limits.tunnelsOfUser);
}

bool CommandTotals::mayConnect(const void *client)
{
    if (!m_requests.contains(client))
        m_requests.append(client);
    if (m_connects >= m_limits.connects
        || (m_commands > 0 && m_outermost.hasExpired(m_limits.joinTime.count())))
        return false;
    const auto next = std::find_if(m_requests.begin(), m_requests.end(), [this](const void *other) {
        const quint32 user = m_clients[other].user;
        return user == kRootUser || m_connectsOf.value(user) < m_limits.connectsOfUser;
    });
    if (next == m_requests.end() || *next != client)
        return false;
    m_requests.erase(next);
    return true;
}

void CommandTotals::withdraw(const void *client)
{
    m_requests.removeOne(client);
}

void CommandTotals::begin(const void *client, bool isConnect)
{
    if (m_commands++ == 0)
        m_outermost.start();
    if (isConnect) {
        ++m_connects;
        ++m_connectsOf[m_clients[client].user];
    }
}

void CommandTotals::end(const void *client, bool isConnect)
{
    --m_commands;
    if (isConnect) {
        --m_connects;
        --m_connectsOf[m_clients[client].user];
    }
}
