#pragma once

#include "commandtotals.h"
#include "vpnserverinformation.h"

#include <QtCore/QObject>
#include <QtCore/QQueue>
#include <QtCore/QSharedPointer>
#include <QtCore/QTimer>

/// What a client may command.
enum class Command { None, Disconnect, ConnectTcp, ConnectUdp };

/// The commands of one client, from their arrival to their turn.
///
/// One command runs at a time, from the event loop, and the newest decides: when a command arrives
/// while an attempt to connect runs, the attempt is told to give up; a connect that a newer command
/// has overtaken before it began never begins. So whatever a client sends ahead, its last command
/// decides, answers keep the order of the commands, and neither stack nor memory grows with their
/// number. A connect begins when CommandTotals gives it a turn, a disconnect at once.
class CommandQueue : public QObject
{
    Q_OBJECT

public:
    /// How many commands may wait for their turn. When one more comes, the oldest is overtaken at
    /// once, the only case in which an answer comes before that of the running command.
    static constexpr int kMaxWaiting = 10'000;

    /// @param totals shared by all clients.
    /// @param user whose commands these are.
    /// @param hasTunnel says whether they have left a living `openvpn`.
    CommandQueue(const QSharedPointer<CommandTotals> &totals, quint32 user,
                 const std::function<bool()> &hasTunnel, QObject *parent);
    ~CommandQueue() override;

    /// Takes a command; it gets its turn from the event loop.
    /// @param command not Command::None.
    /// @param server for a connect. Only that of the newest command is kept: the older ones are
    ///        overtaken and need none.
    void add(Command command, const VpnServerInformation &server);

    /// Overtakes every command that waits; the one that runs goes on.
    void overtakeWaiting();

Q_SIGNALS:
    /// It is the command's turn. It has ended when the signal returns; the event loop may turn
    /// inside.
    void due(Command command, const VpnServerInformation &server);

    /// A newer command has overtaken @p command before it began.
    void overtaken(Command command);

    /// It is the turn of a connect, but there are too many tunnels.
    void refused(Command command);

    /// A newer command has overtaken the running connect, in whose wait this is emitted. Emitted
    /// once for each connect.
    void attemptOvertaken();

private:
    void runNext();

    QSharedPointer<CommandTotals> m_totals;
    QTimer m_turn;
    QQueue<Command> m_waiting;
    VpnServerInformation m_server;
    Command m_running = Command::None;
    bool m_isRunningOvertaken = false;
    bool m_isPutOff = false;
};
