#pragma once

#include "dnsscripts.h"
#include "iplatform.h"

#include <chrono>

namespace vpncore {

/// How long the operations of a platform wait. Tools are given whole seconds, as runProcess()
/// counts them: one more than its limit has to go by.
struct MacPlatformLimits
{
    /// networksetup and macosvpn, each time. What has not answered within seconds hangs.
    std::chrono::seconds tool{30};
    /// The listing of the login items. It may start System Events first, and ask the user whether
    /// that may be used.
    std::chrono::seconds listing{30};
    /// What the system takes to show a new service, and again to dial it.
    std::chrono::milliseconds servicePause{3500};
};

/// What the VPN core needs of macOS.
///
/// All operations need a live `QCoreApplication`; the paths derive from the executable's own place
/// in the bundle's Contents/MacOS folder, never from configuration. There is no state but the
/// limits: objects are only needed where an IPlatform is asked for.
///
/// The operations lie in several files and libraries, so that a program links what it uses: the
/// store page needs `vpncore_store` (and with it Qt Gui), elevation needs `privileges` (and with
/// it Foundation and Security), everything else is in `vpncore`.
class MacPlatform final : public IPlatform
{
public:
    explicit MacPlatform(const MacPlatformLimits &limits = {})
        : m_limits(limits)
    {
    }

    // Starting with the user's session, through System Events. Both leave a script in the working
    // folder; where that cannot be written, neither has an effect.

    /// Asks System Events for the names of the login items. The event loop turns meanwhile, up to
    /// the limit for listings.
    /// @return true when they contain "TalvexVPN" anywhere, a longer name included; false also
    ///         when the question could not be asked.
    bool isRunOnStart() override;

    /// Adds the login item "TalvexVPN" for the application at applicationPath(), whether or not
    /// there is one already, or deletes it. Blocks; failures are not told.
    void setRunOnStart(bool on) override;

    // The system's own VPN protocols.

    /// @return false.
    bool isPptpAsync() override { return false; }

    /// @return true: connectL2tp() dials and does not ask whether that worked.
    bool isL2tpAsync() override { return true; }

    /// @return false.
    bool pptpSupports() override { return false; }

    /// @return true.
    bool l2tpSupports() override { return true; }

    /// Hangs up the service "TalvexFreeVPNL2tp" and removes the service "TalvexFreeVPNnL2tp". The
    /// event loop turns meanwhile, up to the limit for tools for each.
    /// @return success, always.
    OperationResult disconnect() override;

    /// Reads no argument and does nothing.
    /// @return a failure with a text for the user, in Russian.
    OperationResult connectPptp(const QString &server, const QString &user,
                                const QString &password) override;

    /// Calls disconnect(), makes the service "TalvexFreeVPNL2tp" with the `macosvpn` tool of the
    /// working folder, and dials it. The event loop turns while the tool runs, up to the limit for
    /// tools; then the thread blocks for two pauses.
    ///
    /// The values go into a command line as they stand: double quotes in them break it, and a
    /// "%4" in an earlier value is replaced by @p sharedSecret.
    ///
    /// @return success when the tool made the service, whatever the dialling did; otherwise a
    ///         failure with the key "warning.l2tp_connection_fail", or its translation.
    OperationResult connectL2tp(const QString &server, const QString &user, const QString &password,
                                const QString &sharedSecret) override;

    /// Reads no argument and does nothing.
    /// @return success, always.
    OperationResult connectIKEv2(const QString &, const QString &, const QString &) override
    {
        return OperationResult::succeeded();
    }

    // The kill switch: the interface "en0" and no other. Both block until `ifconfig` has ended.

    /// Takes "en0" down.
    /// @return success, always.
    OperationResult turnOffInternet() override;

    /// Brings "en0" up.
    /// @param done set to true, even when that fails.
    /// @return success, always.
    OperationResult turnOnInternet(bool &done) override;

    /// @return false: the kill switch keeps no list of devices.
    bool haveDisabledNetDevicesByKillSwitch() override { return false; }

    /// Does nothing.
    /// @return false.
    bool turnOnNetDevices() override { return false; }

    // The bundle, and commands.

    /// @return the bundle's "Resources" folder, or "Contents" when there is none; no trailing
    ///         slash. Logs the warning "Resources folder doesn't exist" when it does exist.
    static QString resourcesDir();

    /// @return the executable's folder, always ending in "/".
    static QString programmDir();

    /// @return the path of the installed application, "Talvex VPN.app" three levels above the
    ///         executable's folder, whatever bundle the executable runs from.
    static QString applicationPath();

    /// Runs a command line and waits for its end; the event loop turns meanwhile. Logs nothing.
    ///
    /// @param command program and arguments, split by Qt's quoting rules; no shell is involved.
    /// @param timeout limit in whole seconds. A command that outlives it goes on running.
    /// @param output standard output and standard error, as UTF-8, are appended to it, of each
    ///        piece that is read only what comes before its first zero byte.
    /// @return 0 when the command ended, whatever its exit code; 1 when it could not be started;
    ///         2 when more than @p timeout whole seconds had passed.
    static int runProcess(const QString &command, int timeout, QString &output);

    /// Gives every network service its saved DNS settings back and removes the backup files.
    /// Blocks without turning the event loop. Failures show only in the log.
    /// @param limit how long the script may run before it is ended.
    static void updateDns(std::chrono::milliseconds limit = kDnsScriptLimit);

    /// Asks whether no network service has exactly one IPv4 DNS server. Blocks like updateDns().
    /// @return true when there is none; also when the question could not be asked.
    static bool isEmptyDns(std::chrono::milliseconds limit = kDnsScriptLimit);

    /// Clears the DNS servers and search domains of every network service; the backup files stay.
    /// Blocks like updateDns(). Failures show only in the log.
    static void cleanDns(std::chrono::milliseconds limit = kDnsScriptLimit);

    // The daemon, and the application's page in the store.

    /// @return true when the daemon's launchd property list is installed.
    static bool isDemonPlistExist();

    /// How long the list of processes may take. It is there at once; a caller with a window does
    /// not want to wait any longer.
    static constexpr std::chrono::seconds kProcessListLimit{2};

    /// Searches the process list for "talvexvpnd" anywhere in a command line. Blocks without
    /// turning the event loop.
    /// @param limit how long the list may take.
    /// @return true when it is there; false also when the list took longer.
    static bool isDemonLoad(std::chrono::milliseconds limit = kProcessListLimit);

    /// Opens the application's page in the Mac App Store and logs whether that worked.
    static void openMacOSStoreOnAppPage();

    // Administrator rights, for programs that run as an ordinary user; see PopoverWindow.

    /// Tries to run "vpninstallhelper" without a folder as administrator, which is known not to
    /// work. The event loop turns as in PopoverWindow::runC().
    /// @return true when it was started.
    static bool elevateToAdmin();

    /// @return what PopoverWindow::chechAdmin() answers.
    static bool isRunningAsAdministrator();

    /// Runs "vpninstallhelper" of the resources folder as administrator. The event loop turns as in
    /// PopoverWindow::runC().
    /// @param unused not read.
    /// @return true when it was started.
    static bool runAsAdmin(const QString &unused);

private:
    MacPlatformLimits m_limits;
};

} // namespace vpncore
