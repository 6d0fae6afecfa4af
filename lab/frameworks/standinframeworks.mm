#include "standinframeworks.h"

#include <QtCore/QHash>
#include <QtCore/QRegularExpression>

#import <Foundation/Foundation.h>
#import <Security/Authorization.h>

#include <algorithm>
#include <deque>
#include <fcntl.h>
#include <unistd.h>

struct AuthorizationOpaqueRef
{
    int number;
    bool live;
};

namespace {

QStringList recorded;
QString scriptSource;
QString scriptResult;
int scripts = 0;
// Authorizations stay here when they are freed, so that a use afterwards is recognised. A deque
// never moves them.
std::deque<AuthorizationOpaqueRef> authorizations;
QHash<QString, OSStatus> fixedStatus;
char *const *lastArguments = nullptr;
FILE *lastPipe = nullptr;
int lastPipeDescriptor = -1;

QString toQString(NSString *text)
{
    return QString::fromUtf8([text UTF8String]);
}

QString nameOf(AuthorizationRef authorization)
{
    return QStringLiteral("authorization %1").arg(authorization ? authorization->number : 0);
}

QString nullOr(const char *what, const void *address)
{
    return QLatin1String(what) + QLatin1String(address ? " given" : " null");
}

QString quoted(const char *text)
{
    return QStringLiteral("\"%1\"").arg(QString::fromUtf8(text));
}

QString flagsText(AuthorizationFlags flags)
{
    return QStringLiteral("flags %1").arg(flags);
}

QString textOf(const AuthorizationRights *rights)
{
    QStringList items;
    for (uint32_t i = 0; rights && i < rights->count; ++i) {
        const AuthorizationItem &item = rights->items[i];
        items.append(QStringLiteral("{%1, length %2, %3, %4}")
                         .arg(quoted(item.name))
                         .arg(item.valueLength)
                         .arg(nullOr("value", item.value), flagsText(item.flags)));
    }
    return QStringLiteral("rights [%1]").arg(items.join(QLatin1String(", ")));
}

void record(const QString &function, const QStringList &arguments)
{
    recorded.append(QStringLiteral("%1(%2)").arg(function, arguments.join(QLatin1String(", "))));
}

/// Notes a call of Authorization Services.
/// @return what it answers: what the test has set, otherwise whether the authorization is one.
OSStatus answer(const char *function, const QStringList &arguments, bool isValid)
{
    const QString name = QLatin1String(function);
    record(name, arguments);
    return fixedStatus.value(name, isValid ? errAuthorizationSuccess : errAuthorizationInvalidRef);
}

bool isLive(AuthorizationRef authorization)
{
    return authorization && authorization->live;
}

} // namespace

// GNUstep's writes to standard error, as macOS's does.
void NSLog(NSString *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    NSString *text = [[[NSString alloc] initWithFormat:format arguments:arguments] autorelease];
    va_end(arguments);
    record(QStringLiteral("NSLog"), {toQString(text)});
}

@implementation NSAppleEventDescriptor (StandIn)

- (NSString *)stringValue
{
    return [NSString stringWithUTF8String:scriptResult.toUtf8().constData()];
}

@end

@implementation NSAppleScript (StandIn)

- (instancetype)initWithSource:(NSString *)source
{
    self = [super init];
    ++scripts;
    scriptSource = toQString(source);
    return self;
}

- (void)dealloc
{
    --scripts;
    [super dealloc];
}

- (NSAppleEventDescriptor *)executeAndReturnError:(NSDictionary **)errorInfo
{
    record(QStringLiteral("NSAppleScript"), {scriptSource, nullOr("error", errorInfo)});
    static const QRegularExpression script(QRegularExpression::anchoredPattern(
        QStringLiteral(R"-(do shell script "([^"\\]|\\.)*" with administrator privileges)-")));
    if (!scriptResult.isNull() && script.match(scriptSource).hasMatch())
        return [[[NSAppleEventDescriptor alloc] init] autorelease];
    if (errorInfo)
        *errorInfo = [NSDictionary dictionary];
    return nil;
}

@end

OSStatus AuthorizationCreate(const AuthorizationRights *rights,
                             const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                             AuthorizationRef *authorization)
{
    const OSStatus status =
        answer("AuthorizationCreate",
               {textOf(rights), nullOr("environment", environment), flagsText(flags)}, true);
    if (status == errAuthorizationSuccess) {
        authorizations.push_back({static_cast<int>(authorizations.size()) + 1, true});
        *authorization = &authorizations.back();
    }
    return status;
}

OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags)
{
    const OSStatus status = answer("AuthorizationFree", {nameOf(authorization), flagsText(flags)},
                                   isLive(authorization));
    if (status == errAuthorizationSuccess)
        const_cast<AuthorizationOpaqueRef *>(authorization)->live = false;
    return status;
}

OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const AuthorizationRights *rights,
                                 const AuthorizationEnvironment *environment,
                                 AuthorizationFlags flags, AuthorizationRights **authorizedRights)
{
    return answer("AuthorizationCopyRights",
                  {nameOf(authorization), textOf(rights), nullOr("environment", environment),
                   flagsText(flags), nullOr("copy", authorizedRights)},
                  isLive(authorization));
}

OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const char *pathToTool,
                                            AuthorizationFlags options, char *const *arguments,
                                            FILE **communicationsPipe)
{
    QStringList texts;
    for (lastArguments = arguments; *arguments; ++arguments)
        texts.append(quoted(*arguments));
    const OSStatus status =
        answer("AuthorizationExecuteWithPrivileges",
               {nameOf(authorization), quoted(pathToTool), flagsText(options),
                QStringLiteral("arguments [%1]").arg(texts.join(QLatin1String(", "))),
                nullOr("pipe", communicationsPipe)},
               isLive(authorization));
    if (status == errAuthorizationSuccess && communicationsPipe) {
        *communicationsPipe = lastPipe = tmpfile();
        lastPipeDescriptor = fileno(lastPipe);
        if (write(lastPipeDescriptor, "output", 6) != 6 || lseek(lastPipeDescriptor, 0, SEEK_SET))
            qFatal("cannot make a pipe");
    }
    return status;
}

namespace frameworks {

void reset()
{
    recorded.clear();
    scriptResult = QLatin1String("");
    authorizations.clear();
    fixedStatus.clear();
    lastArguments = nullptr;
    if (lastPipe)
        fclose(lastPipe);
    lastPipe = nullptr;
}

QStringList calls()
{
    return recorded;
}

void setScriptResult(const QString &result)
{
    scriptResult = result;
}

void setStatus(const QString &function, int status)
{
    fixedStatus.insert(function, status);
}

int liveScripts()
{
    return scripts;
}

int liveAuthorizations()
{
    return static_cast<int>(
        std::count_if(authorizations.cbegin(), authorizations.cend(),
                      [](const AuthorizationOpaqueRef &each) { return each.live; }));
}

const void *lastArgumentVector()
{
    return lastArguments;
}

bool isPipeUntouched()
{
    return lseek(lastPipeDescriptor, 0, SEEK_CUR) == 0;
}

} // namespace frameworks
