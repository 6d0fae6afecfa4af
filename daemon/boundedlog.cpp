#include "boundedlog.h"

#include <QtCore/QString>

#include <array>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/param.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kNotice[] = "Older lines were removed: the log was full\n";
constexpr qint64 kNoticeLength = sizeof(kNotice) - 1;

LogLimits logLimits;
QtMessageHandler writeMessage = nullptr;
qint64 unseenBytes = 0; ///< written since the last look at the file's size, at most
int logFile = -1; ///< the file behind standard error, to read and to write anywhere in it

/// @return a descriptor of its own, since the one that is there may only append; or -1.
int reopenStandardError()
{
#ifdef Q_OS_DARWIN
    char path[MAXPATHLEN];
    if (::fcntl(STDERR_FILENO, F_GETPATH, path) != 0)
        return -1;
#else
    const char *path = "/proc/self/fd/2";
#endif
    const int file = ::open(path, O_RDWR | O_CLOEXEC);
    struct stat opened = {};
    struct stat wanted = {};
    if (::fstat(file, &opened) == 0 && ::fstat(STDERR_FILENO, &wanted) == 0
        && opened.st_dev == wanted.st_dev && opened.st_ino == wanted.st_ino)
        return file;
    ::close(file); // another one has taken the name
    return -1;
}

/// Writes the notice and the newest lines over the beginning of the file. The end stays as it is,
/// so that a crash meanwhile loses none of them.
/// @return the length of what was written, or 0 when that failed.
qint64 copyNewestToTheFront(qint64 size)
{
    if (::pwrite(logFile, kNotice, kNoticeLength, 0) != kNoticeLength)
        return 0;
    qint64 to = kNoticeLength;
    qint64 from = size - logLimits.keptBytes - 1; // a line may end with this byte
    bool isAtALine = false;
    static std::array<char, std::size_t{64} * 1024> buffer;
    while (from < size) {
        qint64 count = ::pread(logFile, buffer.data(), buffer.size(), from);
        if (count <= 0)
            return 0;
        from += count;
        const char *text = buffer.data();
        if (!isAtALine) {
            const void *end = std::memchr(text, '\n', static_cast<std::size_t>(count));
            if (end == nullptr)
                continue;
            isAtALine = true;
            text = static_cast<const char *>(end) + 1;
            count -= text - buffer.data();
        }
        if (::pwrite(logFile, text, static_cast<std::size_t>(count), to) != count)
            return 0;
        to += count;
    }
    return to;
}

/// How much may be written before the file's size is looked at again, which would be a fifth of
/// what a short line costs.
qint64 mostUnseenBytes()
{
    return logLimits.maxBytes / 256;
}

/// Makes room for @p bytes more, and for what is written before the next look.
void makeRoom(qint64 bytes)
{
    struct stat status = {};
    if (::fstat(STDERR_FILENO, &status) != 0
        || status.st_size <= logLimits.keptBytes + kNoticeLength // no older lines worth the copy
        || status.st_size + bytes + mostUnseenBytes() <= logLimits.maxBytes)
        return;
    const qint64 kept = copyNewestToTheFront(status.st_size);
    if (::ftruncate(STDERR_FILENO, kept) == 0 && kept == 0)
        static_cast<void>(std::fputs(kNotice, stderr));
}

void writeWithinLimits(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    constexpr qint64 kFrameOfALine = 256; // time, category and line feed, as a pattern may ask for
    const qint64 bytes = qint64{3} * message.size(); // a UTF-16 unit has three bytes at most
    unseenBytes += bytes + kFrameOfALine;
    const bool isDue = unseenBytes > mostUnseenBytes();
    if (isDue)
        makeRoom(bytes);
    writeMessage(type, context, message);
    if (isDue) {
        makeRoom(0);
        unseenBytes = 0;
    }
}

} // namespace

bool keepLogWithin(const LogLimits &limits)
{
    struct stat status = {};
    if (::fstat(STDERR_FILENO, &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    // Else the next message would come where the end was before, behind a hole.
    ::fcntl(STDERR_FILENO, F_SETFL, ::fcntl(STDERR_FILENO, F_GETFL) | O_APPEND);
    logLimits = limits;
    unseenBytes = mostUnseenBytes(); // the first message is due
    logFile = reopenStandardError();
    writeMessage = qInstallMessageHandler(writeWithinLimits);
    return true;
}
