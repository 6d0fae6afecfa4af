#pragma once

#include <QtCore/QString>

namespace vpncore {

/// What the VPN core needs of macOS.
///
/// All static operations need a live `QCoreApplication`; the paths derive from the executable's
/// own place in the bundle's Contents/MacOS folder, never from configuration.
class MacPlatform
{
public:
    /// @return the bundle's "Resources" folder, or "Contents" when there is none; no trailing
    ///         slash. Logs the warning "Resources folder doesn't exist" when it does exist.
    static QString resourcesDir();

    /// @return the executable's folder, always ending in "/".
    static QString programmDir();

    /// @return the path of the installed application, "Talvex VPN.app" three levels above the
    ///         executable's folder, whatever bundle the executable runs from.
    static QString applicationPath();

    /// Runs a command line and waits for its end. The event loop turns meanwhile.
    ///
    /// @param command program and arguments, split by Qt's quoting rules; no shell is involved.
    /// @param timeout limit in whole seconds. A command that outlives it goes on running.
    /// @param output standard output and standard error, as UTF-8, are appended to it.
    /// @return 0 when the command ended, whatever its exit code; 1 when it could not be started;
    ///         2 when more than @p timeout whole seconds had passed.
    static int runProcess(const QString &command, int timeout, QString &output);

    /// Gives every network service its saved DNS settings back and removes the backup files.
    /// Blocks for 10 s at most, without turning the event loop. Failures show only in the log.
    static void updateDns();

    /// Asks whether no network service has exactly one IPv4 DNS server. Blocks like updateDns().
    /// @return true when there is none; also when the question could not be asked.
    static bool isEmptyDns();

    /// Clears the DNS servers and search domains of every network service; the backup files stay.
    /// Blocks like updateDns(). Failures show only in the log.
    static void cleanDns();
};

} // namespace vpncore
