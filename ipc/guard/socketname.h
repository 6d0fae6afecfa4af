#pragma once

#include <QtCore/QString>

/// Who has the name of a socket in a folder that every local user may write to.
namespace socketname {

/// @return whether something of this process's own effective user stands at @p path: the socket of
///         a daemon that lives, or what a dead one left. A link counts, not its target.
bool isTakenByOwnUser(const QString &path);

/// Logs a warning unless a socket of this process's own effective user stands at @p path. For after
/// listening: until then, somebody else may have put something there.
void warnUnlessOwnSocket(const QString &path);

} // namespace socketname
