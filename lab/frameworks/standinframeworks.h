#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

/// What the stand-in for AppleScript has been asked, and what it answers.
namespace applescript {

/// One call of executeAndReturnError:.
struct Execution
{
    QString source;
    bool wantsError = false; ///< an address for the error dictionary was given
    bool emptyErrorBefore = false; ///< and there was an empty dictionary at it
};

/// How the user answers the prompt of a script that wants administrator privileges.
enum class Prompt { Granted, Cancelled };

/// Forgets the calls; prompts are granted, results are those of the scripts.
void reset();

void setPrompt(Prompt prompt);

/// Makes every script give this result instead of running.
void setResult(const QString &result);

/// @return the calls so far, oldest first.
QVector<Execution> executions();

/// @return how many scripts have been made and not freed.
int liveScripts();

} // namespace applescript

/// What the stand-in for Authorization Services has been asked, and what it answers.
namespace authorization {

/// Forgets the calls and the authorizations; all functions succeed, on valid authorizations only.
void reset();

/// Makes a function answer @p status, whatever it is given. Only with 0 it does what it does.
void setStatus(const QString &function, int status);

/// @return the calls so far, oldest first, as text: the function and its arguments. Authorizations
///         are numbered from 1; "authorization 0" is one that was never made.
QStringList calls();

/// @return how many authorizations have been made and not freed.
int liveAuthorizations();

/// @return the argument vector that AuthorizationExecuteWithPrivileges was given last.
const void *lastArgumentVector();

/// The pipe that the last tool was started with holds one line from the tool. This reads it.
/// @return true when the pipe has not been closed and the line had not been read.
bool isPipeUntouched();

} // namespace authorization
