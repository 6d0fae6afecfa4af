#include "stoprequests.h"

#include <QtCore/QSocketNotifier>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vpnctl {

namespace {

/// Signal handlers may do next to nothing but write; the event loop has the other end.
int signalPipe[2];

extern "C" void writeToSignalPipe(int)
{
    const int savedError = errno;
    // When the pipe is full, a request waits in it already.
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], "", 1);
    errno = savedError;
}

} // namespace

void onStopSignal(QObject *context, const std::function<void()> &handle)
{
    if (::pipe(signalPipe) != 0)
        qFatal("vpnctl: no descriptor left for the signal pipe");
    for (const int end : signalPipe) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
        ::fcntl(end, F_SETFL, O_NONBLOCK);
    }
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [handle] {
        char bytes[64];
        while (::read(signalPipe[0], bytes, sizeof bytes) > 0) {
        }
        handle();
    });
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        // Whoever starts the program with a signal ignored, like nohup(1), wants it to outlast
        // that.
        if (std::signal(signal, SIG_IGN) != SIG_IGN)
            std::signal(signal, writeToSignalPipe);
    }
}

void onInputEnd(QObject *context, const std::function<void()> &handle)
{
    struct stat input = {};
    if (::fstat(STDIN_FILENO, &input) != 0 || (S_ISCHR(input.st_mode) && !::isatty(STDIN_FILENO)))
        return;
    auto *notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [notifier, handle] {
        // Reading a terminal from the background would stop the whole process.
        const bool isForeign = ::isatty(STDIN_FILENO) && ::tcgetpgrp(STDIN_FILENO) != ::getpgrp();
        char bytes[4096];
        const ssize_t count = isForeign ? 0 : ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count > 0 || (count < 0 && (errno == EINTR || errno == EAGAIN)))
            return;
        notifier->setEnabled(false);
        if (!isForeign)
            handle();
    });
}

} // namespace vpnctl
