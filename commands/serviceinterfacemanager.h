#pragma once

#include "rep_serviceinterface_source.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QQueue>

#include <memory>

class QTimer;

namespace vpncore {
class IOvpnConnection;
class OvpnConnection;
} // namespace vpncore

/// Decodes a client's commands, drives its OpenVPN connection and answers; one for each client.
///
/// A command is a JSON object of strings. These have an effect, and every other text has none and
/// gets no answer:
///
///     {"type":"openvpn","cmd":"disconnect"}
///     {"type":"connect","cmd":"ovpnTcp"}
///     {"type":"connect","cmd":"ovpnUdp"}
///
/// Every command is answered by one vpn_cmd_result() signal, in the order of the commands; only
/// when thousands wait, the oldest of these are answered, as overtaken, before the one that runs.
/// The JSON text of an answer says only which command it belongs to; the outcome is in the record.
class ServiceInterfaceManager : public ServiceInterfaceSource
{
    Q_OBJECT

public:
    /// Creates its own vpncore::OvpnConnection.
    explicit ServiceInterfaceManager(QObject *parent);

    /// @param connection what the commands act on; not owned, and used as long as this lives.
    ServiceInterfaceManager(vpncore::IOvpnConnection *connection, QObject *parent);

    /// Leaves a tunnel that is up as it is: it outlives the manager, and with it the connection.
    ~ServiceInterfaceManager() override;

    /// Executes one command and answers it. The event loop turns until the command is done (16 s
    /// and more for a connect), so this may be called again from inside; the newer command then
    /// ends the attempt of the older one. Giving the DNS settings back blocks for up to 10 s
    /// without turning it. Such direct calls are not counted among those that may wait inside each
    /// other.
    /// @param message the command, JSON.
    /// @param vpnServer where to connect to; not read by other commands.
    void parseVpnCmd(const QString &message, const VpnServerInformation &vpnServer);

    /// @return the string value of @p key in the JSON object @p json; empty when the text is not
    ///         valid JSON or not an object, when the key is missing or its value is no string, and
    ///         when parsing would lose memory (see mayRepeatKeyOfContainer()).
    QString getJsonValue(const QString &key, const QString &json);

    /// Emits vpn_cmd_result() with the JSON text for @p type and @p cmd.
    /// @param type "openvpn", "connect" or "disconnect"; any other yields an empty object.
    /// @param result passed on unchanged.
    void sendCmd(const QString &type, const QString &cmd, const OperationResult &result);

public Q_SLOTS:
    /// The client's heartbeat. From the first one on, the client must call again within 30 s, or
    /// its tunnel is taken down.
    /// @param clientState logged only.
    void server_slot(bool clientState) override;

    /// Takes a command from the client and returns at once; the command runs from the event loop.
    ///
    /// One command runs at a time. When a newer one arrives while an attempt to connect waits,
    /// the attempt gives up; a connect that was overtaken before it began is answered as a failed
    /// attempt without starting anything. So whatever a client pipelines, the last command
    /// decides, and neither stack nor memory grows with the number of commands. When commands of
    /// 64 endpoints wait inside each other's event loops, further ones wait until all of these have
    /// ended. When 10,000 commands of this endpoint wait, the oldest is answered from inside this
    /// call, as overtaken.
    void vpn_command(const QString &message, const VpnServerInformation &vpnServer) override;

private Q_SLOTS:
    void timeout_slot();

private:
    enum class Command { None, Disconnect, ConnectTcp, ConnectUdp };

    Command decode(const QString &message);
    void execute(Command command, const VpnServerInformation &vpnServer);
    void answer(const QString &cmd, const OperationResult &result);
    void answerOvertaken(Command command);
    bool setWaitingServer(const VpnServerInformation &server);
    VpnServerInformation takeWaitingServer();
    void scheduleNextCommand();
    void checkHeartbeat();
    void runNextCommand();
    void endOvertakenAttempt();

    std::unique_ptr<vpncore::OvpnConnection> ownConnection;

    QTimer *livenessTimer;
    QDeadlineTimer heartbeatDeadline;
    vpncore::IOvpnConnection *ovpnConnection;
    bool commandHandled = false;

    QTimer *commandTimer;
    QQueue<Command> waitingCommands;
    /// Belongs to the newest waiting command; the older ones are overtaken and need none.
    VpnServerInformation waitingServer;
    Command runningCommand = Command::None;
    bool isAttemptEnded = false;
};
