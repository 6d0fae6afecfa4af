#include "command.h"
#include "options.h"
#include "report.h"
#include "stoprequests.h"
#include "textlayout.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QTextStream>
#include <QtCore/QTimer>

#include <csignal>

#include <fcntl.h>
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

/// The program says itself what goes wrong.
void silenceQt()
{
    if (qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        QLoggingCategory::setFilterRules(QStringLiteral("qt.*=false"));
}

int exitStatus(ExitCode exitCode)
{
    return static_cast<int>(exitCode);
}

int run(const Options &options, Report &report)
{
    const std::unique_ptr<Command> command = Command::create(options, report);
    // Queued: the command may finish before the event loop runs, or while it is being called.
    QObject::connect(
        command.get(), &Command::finished, qApp,
        [](ExitCode exitCode) { QCoreApplication::exit(exitStatus(exitCode)); },
        Qt::QueuedConnection);
    QObject::connect(&report, &Report::outputClosed, command.get(), &Command::hangUp,
                     Qt::QueuedConnection);
    onStopSignal(command.get(), [&command] { command->stop(); });
    if (command->isTiedToInput())
        onInputEnd(command.get(), [&command] { command->hangUp(); });
    command->start();
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char **argv)
{
    openStandardStreams();
    // When nobody reads the output any more, the write fails, which Report handles.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    silenceQt();
    QCoreApplication application(argc, argv);
    qRegisterMetaType<vpnctl::ExitCode>();

    const QStringList arguments = QCoreApplication::arguments();
    Report report(arguments.contains(QStringLiteral("--json")) ? Report::Form::Json
                                                               : Report::Form::Text);
    try {
        const auto line = readCommandLine(arguments, terminalWidth(STDOUT_FILENO));
        if (const auto *options = std::get_if<Options>(&line))
            return run(*options, report);
        QTextStream(stdout) << *std::get_if<QString>(&line);
        return exitStatus(ExitCode::Done);
    } catch (const Problem &problem) {
        report.problem(problem);
        return exitStatus(problem.exitCode);
    }
}
