#pragma once

#include "iovpnconnection.h"
#include "ovpnlimits.h"

#include <QtCore/QString>

#include <memory>

class QProcess;

namespace vpncore {

/// A connection through the `openvpn` program that lies next to the executable.
///
/// Owns the one `openvpn` process. Every wait turns the event loop, so operations nest: an
/// operation that finds, after a wait, that a newer one has stopped its process ends there, as a
/// failed attempt, and touches neither the newer process nor the newer configuration file.
class OvpnConnection : public IOvpnConnection
{
public:
    /// The transport. The numbers count: what is neither 0 nor 1 means UDP with the TCP port.
    enum ConnectionType : int { Tcp = 0, Udp = 1 };

    /// The verdict on what `openvpn` has printed.
    enum Verdict { Connected = 0, Failed = 1, Undecided = 2 };

    /// @return the failure that answers a connect which a newer command has overtaken.
    static OperationResult overtakenResult();

    /// @return the failure that answers a connect for which no `openvpn` can be started.
    static OperationResult cannotStartResult();

    explicit OvpnConnection(const OvpnLimits &chosenLimits = {});

    /// Stops a running `openvpn` as disconnect() does; the event loop turns meanwhile.
    ~OvpnConnection() override;

    OvpnConnection(const OvpnConnection &) = delete;
    OvpnConnection &operator=(const OvpnConnection &) = delete;

    OperationResult connectUdp(const VpnServerInformation &server) override;
    OperationResult connectTcp(const VpnServerInformation &server) override;

    /// Stops `openvpn` (SIGTERM, after OvpnLimits::terminate SIGKILL), waits for its end however
    /// long that takes, logs what it still prints and the last 256 KiB of what it printed before,
    /// and gives the DNS settings back (see MacPlatform::updateDns(), which blocks for up to 10 s).
    /// Without a process it only removes a configuration file that is left.
    /// @return success, always; also when a newer operation has taken over, whose process may run.
    OperationResult disconnect() override;

    /// @return whether there is an `openvpn` process, or one that has ended since the last
    ///         disconnect().
    bool hasProcess() const { return process != nullptr; }

    /// @return whether there is an `openvpn` process that lives.
    bool isRunning() const { return process && !isEnded(); }

    /// Connects to a server; see forceConnect() for results and limits, and generateConfigText()
    /// for what of the server's record is used. Afterwards there is no configuration file, and of
    /// what `openvpn` prints the last 256 KiB are kept for disconnect().
    /// @param connectionType chooses the transport and which of the two ports is used.
    OperationResult connect(const VpnServerInformation &server, ConnectionType connectionType);

    /// Connects with a ready configuration, as above.
    /// @param configText not checked: whoever passes it may run scripts as the daemon's user.
    /// @param protocolName "UDP" or "TCP", for the time-out message.
    OperationResult connect(const QString &configText, const QString &protocolName);

    /// Makes attempts until one succeeds, fails for good, or OvpnLimits::request has passed over
    /// all of them. A success that came late is still a success. The event loop turns meanwhile. An
    /// attempt that failed leaves its `openvpn` to the next disconnect(), unless the time is up.
    /// @param configText the complete OpenVPN configuration.
    /// @param protocolName "UDP" or "TCP", for the time-out message.
    /// @return success, or a failure with one of these localisation keys:
    ///   - "label.can_not_create_config_for_open_vpn": the configuration could not be written;
    ///   - "warning.open_vpn_running_fails_check_apps": `openvpn` could not be started, or too few
    ///     descriptors are left;
    ///   - "warning.open_vpn_does_not_exists_try_another_protocol": the same, found out late;
    ///   - "warning.open_vpn_connection_time_out": OvpnLimits::attempt or ::request passed;
    ///   - "warning.open_vpn_server_does_not_respond": OvpnLimits::firstOutput passed without any;
    ///   - "warning.can_not_open_vpn_check_is_admin_granted": `openvpn` reported an error, or a
    ///     newer operation overtook this one.
    OperationResult forceConnect(const QString &configText, const QString &protocolName);

    /// Makes one attempt, after stopping whatever runs; see forceConnect() for the results.
    /// @param retry set to true when `openvpn` ended by itself before any verdict.
    OperationResult tryConnectOneTime(const QString &configText, const QString &protocolName,
                                      bool &retry);

    /// Fills the configuration template. A host that is not fitsRemoteLine(), and a CA certificate,
    /// certificate or key that is not fitsInlineBlock(), is left out, with one warning that names
    /// the field.
    /// @param connectionType only read.
    /// @param configText receives the configuration.
    /// @return success, always.
    OperationResult generateConfigText(ConnectionType &connectionType,
                                       const VpnServerInformation &server, QString &configText);

    /// @return "TCP" for Tcp, "UDP" for everything else.
    static QString generateConnectionTypeString(ConnectionType connectionType);

    /// Rewrites "proto udp" to "proto tcp" or back, so that @p configText fits
    /// @p connectionType; other spellings are left alone.
    static void correctConnectionTypeInConfigText(QString &configText,
                                                  ConnectionType connectionType);

    /// Removes the configuration files, with the keys in them, that daemons left which were killed
    /// in an attempt. Must not be called while another daemon of the same user runs.
    static void removeLeftConfigFiles();

    /// Removes the configuration file of the latest attempt, if there is one left.
    void deleteConfigFile();

    /// Judges everything that `openvpn` has printed in an attempt.
    /// @return a Verdict.
    int analyseProcessOutput(const QString &output);

private:
    /// An operation's place in the order of all. It begins with the disconnect() that ends what was
    /// before it.
    struct Operation
    {
        /// @return whether a newer one has begun; false also as long as the own one has not.
        bool isOvertaken() const { return newest > own; }

        const quint64 &newest;
        const quint64 own;
    };

    void startOpenvpn();
    bool isEnded() const;
    void logOutput();
    void watchTunnel();
    void dropExcessOutput();

    QString configFileName;
    std::unique_ptr<QProcess> process;
    quint64 newestOperation = 0;
    const OvpnLimits limits;
};

} // namespace vpncore
