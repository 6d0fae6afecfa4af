#pragma once

#include <QtCore/QtGlobal>

/// The largest log, in bytes. A local user can make the daemon write more than a hundred MiB a
/// second.
constexpr qint64 kMaxLogBytes = qint64{32} * 1024 * 1024;

/// Keeps the log within a limit from now on, where standard error is a regular file: when it is
/// full, all but the newest eighth goes, and one line at the beginning says so.
///
/// Messages go to the handler that was installed before, so their texts are the same as without.
/// What others write to the file counts. It does not matter how the file was opened, nor whether it
/// is renamed or removed meanwhile; where it cannot be read, no line is kept.
///
/// Call this once, before several threads write messages.
/// @param maxBytes more than the longest message, which has some MiB, and an eighth of this.
/// @return false when standard error is no regular file: a terminal, a pipe. Then nothing changes.
bool keepLogWithin(qint64 maxBytes = kMaxLogBytes);
