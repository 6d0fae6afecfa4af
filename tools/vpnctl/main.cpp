#include "command.h"
#include "observation.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTextStream>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace vpnctl;

/// Otherwise a socket might get the number of a standard stream that the caller has closed.
void openStandardStreams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) == -1)
            ::open("/dev/null", O_RDWR);
    }
}

/// Signal handlers may do next to nothing but write; the event loop has the other end.
int signalPipe[2];

extern "C" void writeToSignalPipe(int)
{
    const int savedError = errno;
    // When the pipe is full, a request waits in it already.
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], "", 1);
    errno = savedError;
}

/// From here on SIGINT, SIGTERM and SIGHUP do not end the process, but stop the command, from the
/// event loop. Those that are ignored stay so. Call once.
void stopOnSignal(Command &command)
{
    if (::pipe(signalPipe) != 0)
        qFatal("vpnctl: no descriptor left for the signal pipe");
    for (const int end : signalPipe) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
        ::fcntl(end, F_SETFL, O_NONBLOCK);
    }
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &command);
    QObject::connect(notifier, &QSocketNotifier::activated, &command, [&command] {
        char bytes[64];
        while (::read(signalPipe[0], bytes, sizeof bytes) > 0) {
        }
        command.stop();
    });
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        // Who starts the program with a signal ignored, like nohup(1), wants it to outlast that.
        if (std::signal(signal, SIG_IGN) != SIG_IGN)
            static_cast<void>(std::signal(signal, writeToSignalPipe));
    }
}

/// Hangs the command up when the standard input ends. A device like /dev/null, and a terminal while
/// the program runs in the background, say nothing about anybody's wish and are not watched.
void hangUpAtInputEnd(Command &command)
{
    struct stat input = {};
    if (::fstat(STDIN_FILENO, &input) != 0 || (S_ISCHR(input.st_mode) && !::isatty(STDIN_FILENO)))
        return;
    auto *notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, &command);
    QObject::connect(notifier, &QSocketNotifier::activated, &command, [notifier, &command] {
        // Reading a terminal from the background would stop the whole process.
        const bool isForeign = ::isatty(STDIN_FILENO) && ::tcgetpgrp(STDIN_FILENO) != ::getpgrp();
        char bytes[4096];
        const ssize_t count = isForeign ? 0 : ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count > 0 || (count < 0 && (errno == EINTR || errno == EAGAIN)))
            return;
        notifier->setEnabled(false);
        if (!isForeign)
            command.hangUp();
    });
}

int run(const Options &options, Report &report)
{
    if (options.command == Options::Command::Report) {
        makeReportFolder(options.folder, report);
        return ExitCode::Done;
    }
    const std::unique_ptr<Command> command = Command::create(options, report);
    // Queued: the command may finish before the event loop runs, or while it is being called.
    QObject::connect(command.get(), &Command::finished, qApp, &QCoreApplication::exit,
                     Qt::QueuedConnection);
    QObject::connect(&report, &Report::outputClosed, command.get(), &Command::hangUp,
                     Qt::QueuedConnection);
    stopOnSignal(*command);
    if (options.command == Options::Command::Connect && !options.detach)
        hangUpAtInputEnd(*command);
    command->start();
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char **argv)
{
    openStandardStreams();
    // When nobody reads the output any more, the write fails, which Report handles.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    // The program says itself what goes wrong.
    if (qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        QLoggingCategory::setFilterRules("qt.*=false");
    QCoreApplication application(argc, argv);

    const QStringList arguments = QCoreApplication::arguments();
    Report report(arguments.contains("--json") ? Report::Form::Json : Report::Form::Text);
    try {
        const auto line = readCommandLine(arguments, terminalWidth(STDOUT_FILENO));
        if (const auto *options = std::get_if<Options>(&line))
            return run(*options, report);
        QTextStream(stdout) << *std::get_if<QString>(&line);
        return ExitCode::Done;
    } catch (const Problem &problem) {
        report.problem(problem);
        return problem.exitCode;
    }
}
