#include "standinframeworks.h"

#include <QtCore/QHash>

#import <Security/Authorization.h>

#include <algorithm>
#include <deque>
#include <poll.h>
#include <unistd.h>

struct AuthorizationOpaqueRef
{
    int number;
    bool live;
};

namespace {

// Authorizations stay here when they are freed, so that a use afterwards is recognised. A deque
// never moves them.
std::deque<AuthorizationOpaqueRef> authorizations;
QHash<QString, OSStatus> fixedStatus;
QStringList recorded;
char *const *lastArguments = nullptr;
FILE *lastPipe = nullptr;
int lastPipeDescriptor = -1;
const char kToolOutput[] = "output of the tool\n";

QString nameOf(AuthorizationRef authorization)
{
    return QStringLiteral("authorization %1").arg(authorization ? authorization->number : 0);
}

QString quoted(const char *text)
{
    return text ? QStringLiteral("\"%1\"").arg(QString::fromUtf8(text)) : QStringLiteral("null");
}

QString nullOr(const void *address, const char *otherwise)
{
    return QLatin1String(address ? otherwise : "null");
}

QString textOf(const AuthorizationRights *rights)
{
    if (!rights)
        return QStringLiteral("no rights");
    QStringList items;
    for (uint32_t i = 0; i < rights->count; ++i) {
        const AuthorizationItem &item = rights->items[i];
        items.append(QStringLiteral("{%1, length %2, value %3, flags %4}")
                         .arg(quoted(item.name))
                         .arg(item.valueLength)
                         .arg(nullOr(item.value, "given"))
                         .arg(item.flags));
    }
    return QStringLiteral("rights [%1]").arg(items.join(QLatin1String(", ")));
}

QString textOf(char *const *arguments)
{
    QStringList texts;
    for (; *arguments; ++arguments)
        texts.append(quoted(*arguments));
    return QStringLiteral("arguments [%1]").arg(texts.join(QLatin1String(", ")));
}

void record(const char *function, const QStringList &arguments)
{
    recorded.append(
        QStringLiteral("%1(%2)").arg(QLatin1String(function), arguments.join(QLatin1String(", "))));
}

QString flagsText(AuthorizationFlags flags)
{
    return QStringLiteral("flags %1").arg(flags);
}

/// @return what the function answers: what the test has set, otherwise whether the authorization
///         is one.
OSStatus statusOf(const char *function, bool validAuthorization)
{
    const OSStatus natural =
        validAuthorization ? errAuthorizationSuccess : errAuthorizationInvalidRef;
    return fixedStatus.value(QLatin1String(function), natural);
}

bool isLive(AuthorizationRef authorization)
{
    return authorization && authorization->live;
}

FILE *makePipe()
{
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], kToolOutput, sizeof kToolOutput) < 0)
        qFatal("cannot make a pipe");
    close(ends[1]);
    lastPipe = fdopen(ends[0], "r+");
    lastPipeDescriptor = ends[0];
    return lastPipe;
}

} // namespace

OSStatus AuthorizationCreate(const AuthorizationRights *rights,
                             const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                             AuthorizationRef *authorization)
{
    record("AuthorizationCreate",
           {textOf(rights), nullOr(environment, "given").prepend(QLatin1String("environment ")),
            flagsText(flags)});
    const OSStatus status = statusOf("AuthorizationCreate", true);
    if (status == errAuthorizationSuccess) {
        authorizations.push_back({static_cast<int>(authorizations.size()) + 1, true});
        *authorization = &authorizations.back();
    }
    return status;
}

OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags)
{
    record("AuthorizationFree", {nameOf(authorization), flagsText(flags)});
    const OSStatus status = statusOf("AuthorizationFree", isLive(authorization));
    if (status == errAuthorizationSuccess)
        const_cast<AuthorizationOpaqueRef *>(authorization)->live = false;
    return status;
}

OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const AuthorizationRights *rights,
                                 const AuthorizationEnvironment *environment,
                                 AuthorizationFlags flags, AuthorizationRights **authorizedRights)
{
    record("AuthorizationCopyRights",
           {nameOf(authorization), textOf(rights),
            nullOr(environment, "given").prepend(QLatin1String("environment ")), flagsText(flags),
            nullOr(authorizedRights, "wanted").prepend(QLatin1String("copy "))});
    return statusOf("AuthorizationCopyRights", isLive(authorization));
}

OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const char *pathToTool,
                                            AuthorizationFlags options, char *const *arguments,
                                            FILE **communicationsPipe)
{
    record("AuthorizationExecuteWithPrivileges",
           {nameOf(authorization), quoted(pathToTool), flagsText(options), textOf(arguments),
            nullOr(communicationsPipe, "wanted").prepend(QLatin1String("pipe "))});
    lastArguments = arguments;
    const OSStatus status = statusOf("AuthorizationExecuteWithPrivileges", isLive(authorization));
    if (status == errAuthorizationSuccess && communicationsPipe)
        *communicationsPipe = makePipe();
    return status;
}

namespace authorization {

void reset()
{
    authorizations.clear();
    fixedStatus.clear();
    recorded.clear();
    lastArguments = nullptr;
    if (lastPipe)
        fclose(lastPipe);
    lastPipe = nullptr;
    lastPipeDescriptor = -1;
}

void setStatus(const QString &function, int status)
{
    fixedStatus.insert(function, status);
}

QStringList calls()
{
    return recorded;
}

int liveAuthorizations()
{
    return static_cast<int>(std::count_if(
        authorizations.cbegin(), authorizations.cend(),
        [](const AuthorizationOpaqueRef &authorization) { return authorization.live; }));
}

const void *lastArgumentVector()
{
    return lastArguments;
}

bool isPipeUntouched()
{
    pollfd descriptor{lastPipeDescriptor, POLLIN, 0};
    if (poll(&descriptor, 1, 0) != 1 || !(descriptor.revents & POLLIN))
        return false;
    char output[sizeof kToolOutput] = {};
    return read(descriptor.fd, output, sizeof output) == sizeof output
        && qstrcmp(output, kToolOutput) == 0;
}

} // namespace authorization
