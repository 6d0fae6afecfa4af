#pragma once

#include "target.h"

#include <QtCore/QStringList>

#include <chrono>
#include <optional>
#include <variant>

namespace vpnctl {

/// Takes the endpoint's tunnel down, and ends an attempt that is under way.
const char kDisconnectMessage[] = R"({"type":"openvpn","cmd":"disconnect"})";

/// How long is waited for what. Tests pass shorter times.
struct Limits
{
    /// For everything that the daemon does at once, unless it is restoring the DNS settings: for up
    /// to 10 s it does nothing else then.
    std::chrono::milliseconds handshake = std::chrono::seconds(15);

    std::chrono::milliseconds heartbeatPeriod = std::chrono::seconds(10);

    /// Of a vpnctl that was stopped. The daemon's limit is 30 s; what is sent just before may come
    /// after.
    std::chrono::milliseconds silence = std::chrono::seconds(29);

    /// After which it is looked again whether the tunnel is there.
    std::chrono::milliseconds lookPeriod = std::chrono::seconds(1);

    /// Before a tunnel that has gone is brought up again; each time twice as long as before.
    std::chrono::milliseconds firstPause = std::chrono::seconds(1);
    std::chrono::milliseconds longestPause = std::chrono::seconds(60);
};

/// What the command line asks for.
struct Options
{
    enum class Command { Connect, Disconnect, Status, Report, Ping, Watch, Raw };

    Command command = Command::Ping;
    bool json = false;

    // Where to connect to: one of the three.
    QString configPath;
    QString recordPath;
    QString host;

    // With host.
    QString caPath;
    QString certPath;
    QString keyPath;
    int port = kStandardPort;

    bool udp = false;
    bool tcp = false;
    bool acceptWeaker = false;
    bool detach = false;
    bool once = false; ///< Or else a tunnel that goes is brought up again.
    int endpoint = 0; ///< 0 when not given.
    QString folder = "vpnctl-report"; ///< For report.
    QString message = kDisconnectMessage; ///< What disconnect sends, and raw what it is told.
    std::chrono::seconds answerLimit{120};
    Limits limits; ///< Not for the command line.

    /// @return the transport that was asked for.
    std::optional<Transport> transport() const
    {
        if (!udp && !tcp)
            return {};
        return tcp ? Transport::Tcp : Transport::Udp;
    }
};

/// Reads a command line.
/// @param arguments the program's name first.
/// @param width how many columns a text to print may have.
/// @return what to do, or a text to print: help, the version, or what completion and the manual are
///         made from.
/// @throws Problem when the command line is wrong.
std::variant<Options, QString> readCommandLine(const QStringList &arguments, int width = 80);

} // namespace vpnctl
