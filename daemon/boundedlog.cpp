#include "boundedlog.h"

#include <QtCore/QFile>

#include <cstdio>

#include <fcntl.h>
#include <sys/param.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

qint64 maxLogBytes = 0;
QtMessageHandler writeMessage = nullptr;
qint64 unseenBytes = 0; ///< written since the last look at the file's size, at most

/// @return a name for the file behind standard error, whose descriptor need not be for reading.
QString nameOfStandardError()
{
#ifdef Q_OS_DARWIN
    char path[MAXPATHLEN];
    return ::fcntl(STDERR_FILENO, F_GETPATH, path) == 0 ? QFile::decodeName(path) : QString();
#else
    return QStringLiteral("/proc/self/fd/2");
#endif
}

/// @return the newest lines of a log of @p size bytes, whole ones.
QByteArray newestLines(qint64 size)
{
    QFile log(nameOfStandardError());
    // A line may end with the byte before those that are kept.
    if (!log.open(QIODevice::ReadOnly) || !log.seek(size - maxLogBytes / 8 - 1))
        return {};
    log.readLine();
    return log.readAll();
}

/// How much may be written before the file's size is looked at again. A look costs a fifth of a
/// short line.
qint64 maxUnseenBytes()
{
    return maxLogBytes / 256;
}

/// Makes room for @p bytes more, and for what is written before the next look.
void makeRoom(qint64 bytes)
{
    struct stat status = {};
    if (::fstat(STDERR_FILENO, &status) != 0
        || status.st_size + bytes + maxUnseenBytes() <= maxLogBytes)
        return;
    const QByteArray kept = newestLines(status.st_size);
    if (::ftruncate(STDERR_FILENO, 0) != 0)
        return;
    // There is nowhere to tell of a failure.
    static_cast<void>(std::fputs("Older lines were removed: the log was full\n", stderr));
    static_cast<void>(
        std::fwrite(kept.constData(), 1, static_cast<std::size_t>(kept.size()), stderr));
}

void writeWithinLimit(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    constexpr qint64 kFrameOfALine = 256; // time, category and line feed, as a pattern may ask for
    // A UTF-16 unit has three bytes at most.
    const qint64 bytes = qint64{3} * message.size() + kFrameOfALine;
    unseenBytes += bytes;
    if (unseenBytes > maxUnseenBytes()) {
        makeRoom(bytes);
        unseenBytes = bytes;
    }
    writeMessage(type, context, message);
}

} // namespace

bool keepLogWithin(qint64 maxBytes)
{
    struct stat status = {};
    if (::fstat(STDERR_FILENO, &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    // Otherwise the next message after a cut would stand where the end was before, behind a hole.
    ::fcntl(STDERR_FILENO, F_SETFL, ::fcntl(STDERR_FILENO, F_GETFL) | O_APPEND);
    maxLogBytes = maxBytes;
    unseenBytes = maxBytes; // so the first message looks
    writeMessage = qInstallMessageHandler(writeWithinLimit);
    return true;
}
