#include "report.h"

#include "explain.h"
#include "vpnsession.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <cerrno>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vpnctl {

namespace {

const char kEraseLine[] = "\r\x1b[K";

bool canLiveLine()
{
    return isatty(STDOUT_FILENO) && qgetenv("TERM") != "dumb";
}

int terminalWidth()
{
    constexpr int kStandardWidth = 80;
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                           : kStandardWidth;
}

double secondsOf(std::chrono::milliseconds time)
{
    return std::chrono::duration<double>(time).count();
}

QString secondsText(std::chrono::milliseconds time)
{
    return QString::number(secondsOf(time), 'f', 1);
}

/// For a stream that somebody else has made non-blocking: terminals and pipes are shared.
void waitUntilWritable(int descriptor)
{
    constexpr int kForever = -1;
    pollfd stream = {descriptor, POLLOUT, 0};
    ::poll(&stream, 1, kForever); // if it fails, the next write fails too
}

/// Leaves out the digits that were not measured.
double rounded(double value, int digits)
{
    return QString::number(value, 'f', digits).toDouble();
}

} // namespace

Report::Report(Form form, QObject *parent)
    : QObject(parent)
    , m_form(form)
    , m_isLive(form == Form::Text && canLiveLine())
{
}

Report::~Report()
{
    clearLiveLine();
}

void Report::note(const QString &text)
{
    print(QStringLiteral("note"), {{QStringLiteral("text"), text}}, QStringLiteral("Note: ") + text,
          Stream::Error);
}

void Report::problem(const Problem &problem)
{
    QString text = QStringLiteral("vpnctl: ") + problem.text;
    if (!problem.advice.isEmpty())
        text += QStringLiteral("\nWhat to do: ") + problem.advice;
    print(QStringLiteral("error"),
          {{QStringLiteral("exit"), static_cast<int>(problem.exitCode)},
           {QStringLiteral("text"), problem.text},
           {QStringLiteral("advice"), problem.advice}},
          text, Stream::Error);
}

void Report::weaknesses(const Weaknesses &weaknesses)
{
    QJsonArray list;
    QStringList lines;
    for (const Weakness &weakness : weaknesses) {
        list.append(QJsonObject{{QStringLiteral("directive"), weakness.directive},
                                {QStringLiteral("text"), weakness.text}});
        lines.append(QStringLiteral("Without %1: %2").arg(weakness.directive, weakness.text));
    }
    print(QStringLiteral("weaker"), {{QStringLiteral("directives"), list}},
          lines.join(QLatin1Char('\n')), Stream::Error);
}

void Report::pong(std::chrono::nanoseconds roundTrip)
{
    const double milliseconds = std::chrono::duration<double, std::milli>(roundTrip).count();
    print(QStringLiteral("pong"), {{QStringLiteral("milliseconds"), rounded(milliseconds, 3)}},
          QStringLiteral("The daemon is there and answered after %1 ms.")
              .arg(milliseconds, 0, 'f', 1));
}

void Report::endpoint(int endpoint)
{
    print(QStringLiteral("endpoint"), {{QStringLiteral("endpoint"), endpoint}},
          QStringLiteral("Endpoint: %1").arg(endpoint));
}

void Report::connecting(const Target &target, int attempt, int attempts)
{
    QString text = QStringLiteral("Connecting to %1, port %2, over %3")
                       .arg(target.server.host)
                       .arg(target.port())
                       .arg(transportName(target.transport));
    if (attempts > 1)
        text += QStringLiteral(" (server %1 of %2)").arg(attempt).arg(attempts);
    print(QStringLiteral("connecting"),
          {{QStringLiteral("host"), target.server.host},
           {QStringLiteral("port"), target.port()},
           {QStringLiteral("transport"), transportName(target.transport).toLower()},
           {QStringLiteral("attempt"), attempt},
           {QStringLiteral("attempts"), attempts}},
          text);
}

void Report::waiting(const QString &activity, std::chrono::milliseconds elapsed,
                     std::chrono::seconds limit)
{
    const bool hasLimit = limit.count() > 0;
    QString text = QStringLiteral("  %1 s").arg(secondsText(elapsed), 4);
    if (hasLimit)
        text += QStringLiteral(" of %1 s").arg(limit.count());
    text += QStringLiteral(": ") + activity;

    if (m_isLive) {
        write(Stream::Output, kEraseLine + text.left(terminalWidth() - 1).toUtf8());
        m_hasLiveLine = true;
        return;
    }
    QJsonObject fields{{QStringLiteral("seconds"), rounded(secondsOf(elapsed), 1)},
                       {QStringLiteral("text"), activity}};
    if (hasLimit)
        fields.insert(QStringLiteral("limit"), static_cast<int>(limit.count()));
    print(QStringLiteral("waiting"), fields, text);
}

void Report::answer(const QString &message, const OperationResult &result,
                    std::optional<std::chrono::milliseconds> elapsed)
{
    const QString command = commandOf(message);
    const Explanation explanation = explain(result.message);

    QString text;
    if (command == QLatin1String("connect"))
        text = result.success ? QStringLiteral("Connected") : QStringLiteral("Not connected");
    else if (command == QLatin1String("disconnect"))
        text = result.success ? QStringLiteral("Disconnected") : QStringLiteral("Not disconnected");
    else
        text = QStringLiteral("Answer %1").arg(message);
    if (elapsed)
        text += QStringLiteral(" after %1 s").arg(secondsText(*elapsed));
    if (result.message.isEmpty()) {
        text += QLatin1Char('.');
    } else {
        text += QStringLiteral(": ") + explanation.text;
        if (!explanation.advice.isEmpty())
            text +=
                QStringLiteral("\nWhat to do: %1\nKey: %2").arg(explanation.advice, result.message);
    }

    QJsonObject fields{{QStringLiteral("command"), command},
                       {QStringLiteral("success"), result.success},
                       {QStringLiteral("code"), result.code},
                       {QStringLiteral("key"), result.message},
                       {QStringLiteral("message"), message}};
    if (elapsed)
        fields.insert(QStringLiteral("seconds"), rounded(secondsOf(*elapsed), 1));
    if (!result.message.isEmpty()) {
        fields.insert(QStringLiteral("text"), explanation.text);
        fields.insert(QStringLiteral("advice"), explanation.advice);
    }
    print(QStringLiteral("answer"), fields, text);
}

void Report::holding(int endpoint)
{
    print(QStringLiteral("up"), {{QStringLiteral("endpoint"), endpoint}},
          isatty(STDIN_FILENO) ? QStringLiteral("The tunnel is up. Ctrl-C takes it down.")
                               : QStringLiteral("The tunnel is up."));
}

void Report::detached(int endpoint)
{
    print(QStringLiteral("detached"), {{QStringLiteral("endpoint"), endpoint}},
          QStringLiteral("The tunnel is up and stays up. To take it down: "
                         "vpnctl disconnect --endpoint %1")
              .arg(endpoint));
}

void Report::watching(int endpoint)
{
    print(QStringLiteral("watching"), {{QStringLiteral("endpoint"), endpoint}},
          QStringLiteral("Watching endpoint %1").arg(endpoint));
}

void Report::disconnecting()
{
    print(QStringLiteral("disconnecting"), {}, QStringLiteral("Disconnecting"));
}

void Report::cleaningUp()
{
    print(QStringLiteral("disconnecting"), {},
          QStringLiteral("Taking down what the attempt left running"));
}

void Report::takenDown(int endpoint)
{
    print(QStringLiteral("takenDown"), {{QStringLiteral("endpoint"), endpoint}},
          QStringLiteral("Another client of endpoint %1 has taken the tunnel down.").arg(endpoint));
}

void Report::lapsed(int endpoint, std::chrono::milliseconds silence)
{
    print(QStringLiteral("lapsed"),
          {{QStringLiteral("endpoint"), endpoint},
           {QStringLiteral("seconds"), rounded(secondsOf(silence), 1)}},
          QStringLiteral("vpnctl was stopped or held up for %1 s. The daemon takes the tunnel down "
                         "when it hears nothing for 30 s.")
              .arg(secondsText(silence)));
}

void Report::print(const QString &event, QJsonObject fields, const QString &text, Stream stream)
{
    if (m_form == Form::Json) {
        fields.insert(QStringLiteral("event"), event);
        write(Stream::Output, QJsonDocument(fields).toJson(QJsonDocument::Compact) + '\n');
        return;
    }
    clearLiveLine();
    write(stream, text.toUtf8() + '\n');
}

void Report::write(Stream stream, const QByteArray &bytes)
{
    const int descriptor = stream == Stream::Output ? STDOUT_FILENO : STDERR_FILENO;
    int written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(descriptor, bytes.constData() + written,
                                      static_cast<std::size_t>(bytes.size() - written));
        if (count > 0) {
            written += static_cast<int>(count);
        } else if (errno == EAGAIN) {
            waitUntilWritable(descriptor);
        } else if (errno != EINTR) {
            if (stream == Stream::Output)
                Q_EMIT outputClosed();
            return;
        }
    }
}

void Report::clearLiveLine()
{
    if (!m_hasLiveLine)
        return;
    m_hasLiveLine = false;
    write(Stream::Output, kEraseLine);
}

} // namespace vpnctl
