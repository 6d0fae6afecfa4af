#include "standinframeworks.h"

#include <QtCore/QHash>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>

#import <Foundation/Foundation.h>

#include <optional>

namespace {

QVector<applescript::Execution> recorded;
applescript::Prompt prompt = applescript::Prompt::Granted;
std::optional<QString> fixedResult;

// A category cannot add members, so what belongs to an object is kept beside it.
QHash<const void *, NSString *> sources;
QHash<const void *, NSString *> values;

constexpr int kErrorUserCancelled = -128;
constexpr int kErrorSyntax = -2740;

NSString *toNSString(const QString &text)
{
    return [NSString stringWithUTF8String:text.toUtf8().constData()];
}

NSAppleEventDescriptor *failure(int number, NSDictionary **errorInfo)
{
    if (errorInfo) {
        *errorInfo = [NSDictionary dictionaryWithObject:[NSNumber numberWithInt:number]
                                                 forKey:@"NSAppleScriptErrorNumber"];
    }
    return nil;
}

NSAppleEventDescriptor *success(const QString &result)
{
    NSAppleEventDescriptor *descriptor = [[[NSAppleEventDescriptor alloc] init] autorelease];
    values.insert(descriptor, [toNSString(result) retain]);
    return descriptor;
}

/// @return the shell command of the one kind of script known here, nothing for any other text.
std::optional<QString> shellCommandOf(const QString &source)
{
    static const QRegularExpression script(QRegularExpression::anchoredPattern(
        QStringLiteral(R"-(do shell script "((?:[^"\\]|\\.)*)" with administrator privileges)-")));
    const QRegularExpressionMatch match = script.match(source);
    if (!match.hasMatch())
        return std::nullopt;
    return match.captured(1).replace(QRegularExpression(QStringLiteral(R"(\\(.))")),
                                     QStringLiteral(R"(\1)"));
}

} // namespace

@implementation NSAppleEventDescriptor (StandIn)

- (NSString *)stringValue
{
    return values.value(self);
}

- (void)dealloc
{
    [values.take(self) release];
    [super dealloc];
}

@end

@implementation NSAppleScript (StandIn)

- (instancetype)initWithSource:(NSString *)source
{
    self = [super init];
    sources.insert(self, [source copy]);
    return self;
}

- (void)dealloc
{
    [sources.take(self) release];
    [super dealloc];
}

- (NSString *)source
{
    return sources.value(self);
}

- (NSAppleEventDescriptor *)executeAndReturnError:(NSDictionary **)errorInfo
{
    const QString source = QString::fromUtf8([[self source] UTF8String]);
    recorded.append({source, errorInfo != nullptr,
                     errorInfo != nullptr && *errorInfo != nil && [*errorInfo count] == 0});

    // A script is compiled before it runs, and only what runs asks the user.
    const std::optional<QString> command = shellCommandOf(source);
    if (!command)
        return failure(kErrorSyntax, errorInfo);
    if (prompt == applescript::Prompt::Cancelled)
        return failure(kErrorUserCancelled, errorInfo);
    if (fixedResult)
        return success(*fixedResult);

    QProcess shell;
    shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), *command});
    shell.waitForFinished();
    if (shell.exitStatus() != QProcess::NormalExit || shell.exitCode() != 0)
        return failure(shell.exitCode(), errorInfo);
    QString result = QString::fromUtf8(shell.readAllStandardOutput());
    if (result.endsWith(QLatin1Char('\n')))
        result.chop(1);
    return success(result.replace(QLatin1Char('\n'), QLatin1Char('\r')));
}

@end

namespace applescript {

void reset()
{
    recorded.clear();
    prompt = Prompt::Granted;
    fixedResult.reset();
}

void setPrompt(Prompt answer)
{
    prompt = answer;
}

void setResult(const QString &result)
{
    fixedResult = result;
}

QVector<Execution> executions()
{
    return recorded;
}

int liveScripts()
{
    return sources.size();
}

} // namespace applescript
