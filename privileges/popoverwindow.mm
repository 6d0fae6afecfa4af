#include "popoverwindow.h"

#include "eventwait.h"

#include <QtCore/QDebug>

#import <Foundation/Foundation.h>
#import <Security/Authorization.h>

// Built without automatic reference counting: what is allocated here is released here. Callers need
// no autorelease pool, and NSLog wants one: hence the pool in every operation.

namespace {

const char kAdministratorRight[] = "system.privilege.admin";

NSString *toNSString(const QString &text)
{
    return [NSString stringWithUTF8String:text.toUtf8().constData()];
}

/// Runs an AppleScript, which asks the user when its text says so.
/// @param error receives the reason of a failure; may be null.
/// @return the result, owned by the autorelease pool; nil on failure.
NSAppleEventDescriptor *runScript(NSString *source, NSDictionary **error)
{
    NSAppleScript *script = [[NSAppleScript alloc] initWithSource:source];
    NSAppleEventDescriptor *result = [[[script executeAndReturnError:error] retain] autorelease];
    [script release];
    return result;
}

/// Starts a tool with administrator rights. The pipe to the tool is left alone: closing it could
/// end a tool that still prints.
OSStatus startTool(AuthorizationRef authorization, const char *path, char *const *arguments)
{
    FILE *ignoredPipe = nullptr;
    // Deprecated since macOS 10.7, without a replacement for a tool that is not a service.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
    return AuthorizationExecuteWithPrivileges(authorization, path, kAuthorizationFlagDefaults,
                                              arguments, &ignoredPipe);
#pragma clang diagnostic pop
}

} // namespace

PopoverWindow::~PopoverWindow() = default;

bool PopoverWindow::isAppRun()
{
    @autoreleasepool {
        NSAppleEventDescriptor *result = runScript(
            @"do shell script \"launchctl list | grep talvexvpnd \" with administrator privileges",
            nullptr);
        const QString text = QString::fromUtf8([[result stringValue] UTF8String]);
        const bool running = text.contains(QLatin1String("talvexvpnd"), Qt::CaseInsensitive);
        qDebug() << "Status App " << (running ? "true" : "false");
        qDebug() << "Status App executeResult " << text;
        return running;
    }
}

bool PopoverWindow::runAppScript(QString const &command, QString const &)
{
    QString source = QStringLiteral("do shell script \"") + command
        + QStringLiteral("\" with administrator privileges");
    // A blank for a blank changes nothing. The call stays for what it says: the blanks of the
    // command reach the shell unescaped.
    source.replace(QLatin1Char(' '), QLatin1Char(' '));
    @autoreleasepool {
        NSDictionary *error = [NSDictionary dictionary];
        if (runScript(toNSString(source), &error) != nil) {
            NSLog(@"success!");
            return true;
        }
        qDebug() << "Do cmd failure: " << source;
        NSLog(@"failure! %@", toNSString(source));
        return false;
    }
}

bool PopoverWindow::runC(QString const &toolPath, QString const &argument,
                         std::chrono::milliseconds startTime)
{
    @autoreleasepool {
        AuthorizationRef authorization = nullptr;
        OSStatus status = AuthorizationCreate(nullptr, kAuthorizationEmptyEnvironment,
                                              kAuthorizationFlagDefaults, &authorization);
        if (status != errAuthorizationSuccess) {
            NSLog(@"Error Creating Initial Authorization: %d", status);
            return false;
        }

        AuthorizationItem item = {kAdministratorRight, 0, nullptr, 0};
        const AuthorizationRights rights = {1, &item};
        status = AuthorizationCopyRights(authorization, &rights, kAuthorizationEmptyEnvironment,
                                         kAuthorizationFlagInteractionAllowed
                                             | kAuthorizationFlagExtendRights
                                             | kAuthorizationFlagPreAuthorize,
                                         nullptr);
        // A failure from here on leaves the authorization allocated. That is wanted; macOS frees it
        // when the process ends.
        if (status != errAuthorizationSuccess) {
            NSLog(@"Copy Rights Unsuccessful: %d", status);
            qDebug() << "Copy Rights Unsuccessful: " << status;
            return false;
        }

        QByteArray localToolPath = toolPath.toLocal8Bit();
        QByteArray localArgument = argument.toLocal8Bit();
        // The path comes again as an argument; the tool expects its own argument in second place.
        char *const arguments[] = {localToolPath.data(), localArgument.data(), nullptr};
        qDebug() << "runC"
                 << " Path to app" << toolPath;
        qDebug() << "Current tool: " << toolPath;
        // The address and not the texts: an argument may be a secret.
        qDebug() << "Current args: " << static_cast<const void *>(arguments);

        status = startTool(authorization, localToolPath.constData(), arguments);
        if (status != errAuthorizationSuccess) {
            qDebug() << "Error: " << status;
            NSLog(@"Error: %d", status);
            return false;
        }

        qDebug() << "Current status: " << status;
        vpncore::waitUntil(startTime);
        AuthorizationFree(authorization, kAuthorizationFlagDestroyRights);
        return true;
    }
}

bool PopoverWindow::chechAdmin()
{
    @autoreleasepool {
        const QByteArray path = QStringLiteral("TalvexVPN").toLocal8Bit();
        qDebug() << "PopoverWindow::chechAdmin()";

        // No authorization is wanted: the answer to a call without one is what is reported.
        const AuthorizationRef noAuthorization = nullptr;
        char *const noArguments[] = {nullptr};
        const OSStatus status = startTool(noAuthorization, path.constData(), noArguments);
        if (status != errAuthorizationSuccess) {
            NSLog(@"ChechAdmin......FALSE");
            NSLog(@"Error: %d", status);
            return false;
        }
        NSLog(@"ChechAdmin......TRUE");
        return true;
    }
}
