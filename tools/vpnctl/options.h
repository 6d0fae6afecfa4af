#pragma once

#include "sessionlimits.h"
#include "target.h"

#include <QtCore/QStringList>

#include <chrono>
#include <optional>

namespace vpnctl {

/// What the command line asks for.
struct Options
{
    enum class Command { Connect, Disconnect, Ping, Watch, Raw };

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
    int port = 0; ///< 0 when not given.

    std::optional<Transport> transport;
    bool detach = false;
    int endpoint = 0; ///< 0 when not given.
    QString message; ///< For raw: what to send.
    std::chrono::seconds answerLimit{120};
    SessionLimits limits; ///< Not for the command line.
};

/// What became of reading a command line.
struct CommandLine
{
    std::optional<Options> options; ///< Nothing when there is only a text to print.
    bool isError = false;
    bool json = false; ///< Whether --json was there, also on an error.
    QString text; ///< The help or the version, or what is wrong.
};

/// @param arguments the program's name first.
CommandLine parseCommandLine(const QStringList &arguments);

} // namespace vpnctl
