#pragma once

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QVector>

#include <chrono>
#include <functional>

/// What CommandTotals shares out.
struct CommandLimits
{
    /// Connects that run inside each other's waits. Each takes some 10 KiB of stack and delays the
    /// answers of the commands around it.
    int connects = 8;
    int connectsOfUser = 2;
    /// Connects may begin inside the outermost running command for so long after its start. Without
    /// this limit, one after the other could delay its answer without end.
    std::chrono::milliseconds joinTime{std::chrono::seconds(16)};
    /// Living `openvpn` processes, in a tunnel or left by a failed attempt.
    int tunnels = 64;
    int tunnelsOfUser = 16;
};

/// Shares out turns and tunnels among all clients. One object for all of them.
///
/// While a command waits for `openvpn`, the event loop turns, and a command of another client
/// begins inside that wait: the outer one is answered only after the inner one. So connects, which
/// take long, have to wait for a turn. Disconnects never do.
///
/// For the user root, only the totals count.
class CommandTotals
{
public:
    explicit CommandTotals(const CommandLimits &limits = {})
        : m_limits(limits)
    {
    }

    /// @param client stands for it in the other calls.
    /// @param hasTunnel says whether it has a living `openvpn`.
    void add(const void *client, quint32 user, const std::function<bool()> &hasTunnel);
    void remove(const void *client);

    /// @return whether a connect of @p client would start an `openvpn` too many.
    bool hasTooManyTunnels(const void *client) const;

    /// Asks for a turn to connect. Who must wait asks again; turns are given in the order of the
    /// first questions, except to users who have as many as they may.
    /// @return whether the connect may begin now. Then begin() must follow at once.
    bool mayConnect(const void *client);

    /// Takes back that @p client has asked.
    void withdraw(const void *client);

    /// A command runs from begin() to end().
    void begin(const void *client, bool isConnect);
    void end(const void *client, bool isConnect);

private:
    struct Client
    {
        quint32 user;
        std::function<bool()> hasTunnel;
    };

    CommandLimits m_limits;
    QHash<const void *, Client> m_clients;
    QVector<const void *> m_requests; ///< who waits for a turn, in the order of arrival
    QHash<quint32, int> m_connectsOf;
    int m_connects = 0;
    int m_commands = 0;
    QElapsedTimer m_outermost; ///< since the outermost running command has begun
};
