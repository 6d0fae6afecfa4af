#include "standinframeworks.h"

#include <QtCore/QHash>
#include <QtCore/QRegularExpression>

#import <Foundation/Foundation.h>
#import <Security/Authorization.h>

#include <algorithm>
#include <deque>

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
FILE *lastPipe = nullptr;
int lastPipeDescriptor = -1;

QString nameOf(AuthorizationRef authorization)
{
    return QString("authorization %1").arg(authorization ? authorization->number : 0);
}

QString nullOr(const QString &what, const void *address)
{
    return what + (address ? " given" : " null");
}

QString quoted(const char *text)
{
    return QString("\"%1\"").arg(text);
}

QString flagsText(AuthorizationFlags flags)
{
    return QString("flags %1").arg(flags);
}

QString textOf(const AuthorizationRights *rights)
{
    QStringList items;
    for (uint32_t i = 0; rights && i < rights->count; ++i) {
        const AuthorizationItem &item = rights->items[i];
        items.append(QString("{%1, length %2, %3, %4}")
                         .arg(quoted(item.name), QString::number(item.valueLength),
                              nullOr("value", item.value), flagsText(item.flags)));
    }
    return QString("rights [%1]").arg(items.join(", "));
}

void record(const QString &function, const QStringList &arguments)
{
    recorded.append(QString("%1(%2)").arg(function, arguments.join(", ")));
}

/// Notes a call of Authorization Services.
/// @return what it answers: what the test has set, otherwise whether the authorization is one.
OSStatus answer(const QString &function, const QStringList &arguments, bool isValid)
{
    record(function, arguments);
    return fixedStatus.value(function,
                             isValid ? errAuthorizationSuccess : errAuthorizationInvalidRef);
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
    record("NSLog", {[text UTF8String]});
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
    scriptSource = [source UTF8String];
    return self;
}

- (void)dealloc
{
    --scripts;
    [super dealloc];
}

- (NSAppleEventDescriptor *)executeAndReturnError:(NSDictionary **)errorInfo
{
    record("NSAppleScript", {scriptSource, nullOr("error", errorInfo)});
    static const QRegularExpression script(QRegularExpression::anchoredPattern(
        R"-(do shell script "([^"\\]|\\.)*" with administrator privileges)-"));
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
    for (; *arguments; ++arguments)
        texts.append(quoted(*arguments));
    const OSStatus status = answer("AuthorizationExecuteWithPrivileges",
                                   {nameOf(authorization), quoted(pathToTool), flagsText(options),
                                    QString("arguments [%1]").arg(texts.join(", ")),
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
    scriptResult = "";
    authorizations.clear();
    fixedStatus.clear();
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

bool isPipeUntouched()
{
    return lseek(lastPipeDescriptor, 0, SEEK_CUR) == 0;
}

} // namespace frameworks
