#pragma once

#include <QtCore/QtGlobal>

/// A local user can make the daemon write more than a hundred MiB a second.
constexpr qint64 kMaxLogBytes = qint64{32} * 1024 * 1024;

struct LogLimits
{
    /// The log is not larger than this, in bytes. Only a single message that is longer than the
    /// difference of the two values may pass it, and only until it is written.
    qint64 maxBytes = kMaxLogBytes;

    /// What is kept of the newest lines when the log is full, in bytes. Less than maxBytes: the
    /// difference is written before the log is full again, so that a flood does not copy for ever.
    qint64 keptBytes = kMaxLogBytes / 2;
};

/// Keeps the log within limits from now on, where standard error is a regular file: when it is
/// full, the older lines go and one line at the beginning says so.
///
/// Messages go to the handler that was installed before, so their texts are the same as without.
/// The size is looked at with each message and counts what others write to the file. It does not
/// matter how the file was opened, nor whether it is renamed or removed meanwhile. Where it cannot
/// be read, no old line is kept.
///
/// To be called once, and before there are messages of several threads. Takes one descriptor for as
/// long as the process lives.
/// @return false when standard error is no regular file: a terminal, a pipe. Then nothing changes.
bool keepLogWithin(const LogLimits &limits = {});
