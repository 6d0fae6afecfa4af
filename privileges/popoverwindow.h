#pragma once

#include <QtCore/QString>

#include <chrono>

/// Ways to do something as administrator from a program that runs as an ordinary user: AppleScript
/// "with administrator privileges", and Authorization Services. Either lets macOS ask the user.
///
/// Every operation needs a `QCoreApplication`, blocks until the user has answered, and tells why it
/// failed only in the log: Qt's debug stream and, where noted, `NSLog`.
class PopoverWindow
{
public:
    virtual ~PopoverWindow();

    /// Asks launchctl, as administrator, for the daemon.
    /// @return true when its list names "talvexvpnd", in any letter case.
    bool isAppRun();

    /// Runs a shell command as administrator and waits for its end.
    /// @param command becomes part of an AppleScript text as it stands. A double quote or a
    ///        backslash in it must be escaped by the caller, or the script is broken.
    /// @param unused not read.
    /// @return true when the script gave a result; false when it is broken, the command failed or
    ///         the user refused. Logs through `NSLog` too.
    bool runAppScript(QString const &command, QString const &unused);

    /// What a started tool needs to take over its authorization, before that is destroyed.
    static constexpr std::chrono::milliseconds kToolStartTime{500};

    /// Asks for the right "system.privilege.admin" and starts a tool with it. The event loop turns
    /// for a while after the start; the tool is not waited for beyond that, and may outlive it.
    /// @param toolPath the tool. It gets this path as its first argument, before @p argument.
    /// @param argument its second argument, also when empty.
    /// @param startTime how long the event loop turns after the start.
    /// @return true when the tool was started. On failure after the first step the authorization
    ///         is not freed. Logs through `NSLog` too.
    bool runC(QString const &toolPath, QString const &argument,
              std::chrono::milliseconds startTime = kToolStartTime);

    /// Tries to start "TalvexVPN" of the working folder without any authorization.
    /// @return what Authorization Services makes of that: true when it started. Logs through
    ///         `NSLog` too.
    bool chechAdmin();
};
