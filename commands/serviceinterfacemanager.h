#pragma once

#include "commandqueue.h"

#include "rep_serviceinterface_source.h"

#include <chrono>
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
/// Every command is answered by one vpn_cmd_result() signal, in the order of the commands (see
/// CommandQueue for the one exception). The JSON text of an answer says only which command it
/// belongs to; the outcome is in the record.
class ServiceInterfaceManager : public ServiceInterfaceSource
{
    Q_OBJECT

public:
    /// How long a client may be silent after a heartbeat before its tunnel is taken down.
    static constexpr std::chrono::milliseconds kHeartbeatLimit{30'000};

    /// Creates its own vpncore::OvpnConnection.
    /// @param totals shared by the managers of all clients.
    /// @param user whose commands these are.
    ServiceInterfaceManager(const QSharedPointer<CommandTotals> &totals, quint32 user,
                            QObject *parent);

    /// @param connection what the commands act on; not owned, and used as long as this lives.
    /// @param totals, user as above.
    /// @param limit how long a client may be silent after a heartbeat.
    ServiceInterfaceManager(vpncore::IOvpnConnection *connection,
                            const QSharedPointer<CommandTotals> &totals, quint32 user,
                            std::chrono::milliseconds limit, QObject *parent);

    /// Leaves a tunnel that is up as it is: it outlives the manager, and with it the connection.
    ~ServiceInterfaceManager() override;

    /// Executes one command and answers it. The event loop turns until the command is done (16 s
    /// and more for a connect), so this may be called again from inside; the newer command then
    /// ends the attempt of the older one. Giving the DNS settings back blocks for up to 10 s
    /// without turning it. Direct calls go past the queue.
    /// @param message the command, JSON.
    /// @param vpnServer where to connect to; not read by other commands.
    void parseVpnCmd(const QString &message, const VpnServerInformation &vpnServer);

    /// @return the string value of @p key in the JSON object @p json; empty when the text is not
    ///         valid JSON or not an object, when the key is missing or its value is no string, and
    ///         when parsing would lose memory (see losesMemory()).
    QString getJsonValue(const QString &key, const QString &json);

    /// Emits vpn_cmd_result() with the JSON text for @p type and @p cmd.
    /// @param type "openvpn", "connect" or "disconnect"; any other yields an empty object.
    /// @param result passed on unchanged.
    void sendCmd(const QString &type, const QString &cmd, const OperationResult &result);

public Q_SLOTS:
    /// The client's heartbeat. From the first one on, the client must call again within the
    /// heartbeat limit, or its tunnel is taken down.
    /// @param clientState logged only.
    void server_slot(bool clientState) override;

    /// Takes a command from the client and returns at once; the command runs from the event loop
    /// (see CommandQueue).
    void vpn_command(const QString &message, const VpnServerInformation &vpnServer) override;

private Q_SLOTS:
    void timeout_slot();

private:
    Command decode(const QString &message);
    void execute(Command command, const VpnServerInformation &vpnServer);
    void answer(const QString &cmd, const OperationResult &result);
    void answerOvertaken(Command command);

    QTimer *livenessTimer;
    vpncore::IOvpnConnection *ovpnConnection;
    bool commandHandled = false;

    std::unique_ptr<vpncore::OvpnConnection> ownConnection;
    std::chrono::milliseconds heartbeatLimit;
    CommandQueue queue;
};
