#pragma once

#include <QtCore/QString>
#include <QtCore/QStringList>

/// What the stand-ins for macOS's frameworks have been asked, and what they answer.
namespace frameworks {

/// Forgets everything. Scripts give an empty result, and the functions of Authorization Services
/// succeed, on valid authorizations only.
void reset();

/// @return the calls so far, oldest first, as text: the function and its arguments. Authorizations
///         are numbered from 1; "authorization 0" is one that was never made.
QStringList calls();

/// What every script gives that AppleScript would understand; a null text stands for a failure,
/// such as a prompt that the user cancels.
void setScriptResult(const QString &result);

/// Makes a function of Authorization Services answer @p status, whatever it is given. Only with 0
/// it does what it does.
void setStatus(const QString &function, int status);

/// @return how many have been made and not freed.
int liveScripts();
int liveAuthorizations();

/// @return true when what came from the last tool has neither been read nor closed.
bool isPipeUntouched();

} // namespace frameworks
