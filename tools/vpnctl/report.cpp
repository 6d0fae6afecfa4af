#include "report.h"

#include "explain.h"
#include "textlayout.h"
#include "vpnsession.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace vpnctl {

namespace {

const char kEraseLine[] = "\r\x1b[K";

/// @return seconds with as many digits as are worth knowing.
QString secondsText(std::chrono::milliseconds time)
{
    return QString::number(std::chrono::duration<double>(time).count(), 'f', 1);
}

} // namespace

Report::Report(Form form, QObject *parent)
    : QObject(parent)
    , m_form(form)
    , m_isLive(form == Form::Text && ::isatty(STDOUT_FILENO) && qgetenv("TERM") != "dumb")
{
}

Report::~Report()
{
    eraseLiveLine();
}

void Report::note(const QString &text)
{
    print("note", {{QStringLiteral("text"), text}}, QStringLiteral("Note: ") + text, STDERR_FILENO);
}

void Report::problem(const Problem &problem)
{
    QString text = QStringLiteral("vpnctl: ") + problem.text;
    if (!problem.advice.isEmpty())
        text += QStringLiteral("\nWhat to do: ") + problem.advice;
    print("error",
          {{QStringLiteral("exit"), static_cast<int>(problem.exitCode)},
           {QStringLiteral("text"), problem.text},
           {QStringLiteral("advice"), problem.advice}},
          text, STDERR_FILENO);
}

void Report::endpoint(int endpoint)
{
    print("endpoint", {{QStringLiteral("endpoint"), endpoint}},
          QStringLiteral("Endpoint: %1").arg(endpoint));
}

void Report::waiting(std::chrono::milliseconds elapsed)
{
    // So short that it has room in every window: what is left of a line that was broken when the
    // window became narrower cannot be erased.
    const QString text = QStringLiteral("Waiting for the daemon: %1 s").arg(secondsText(elapsed));
    if (!m_isLive)
        return print("waiting", {{QStringLiteral("seconds"), secondsText(elapsed).toDouble()}},
                     text);
    write(STDOUT_FILENO, kEraseLine + text.toUtf8());
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

    print("answer",
          {{QStringLiteral("command"), command},
           {QStringLiteral("success"), result.success},
           {QStringLiteral("code"), result.code},
           {QStringLiteral("key"), result.message},
           {QStringLiteral("message"), message},
           {QStringLiteral("seconds"),
            elapsed ? QJsonValue(secondsText(*elapsed).toDouble()) : QJsonValue()},
           {QStringLiteral("text"), explanation.text},
           {QStringLiteral("advice"), explanation.advice}},
          text);
}

void Report::print(const char *event, QJsonObject fields, const QString &text, int descriptor)
{
    if (m_form == Form::Json) {
        fields.insert(QStringLiteral("event"), QLatin1String(event));
        write(STDOUT_FILENO, QJsonDocument(fields).toJson(QJsonDocument::Compact) + '\n');
        return;
    }
    eraseLiveLine();
    write(descriptor, wrapped(text, terminalWidth(descriptor)).toUtf8() + '\n');
}

void Report::write(int descriptor, const QByteArray &bytes)
{
    int written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(descriptor, bytes.constData() + written,
                                      static_cast<std::size_t>(bytes.size() - written));
        if (count > 0) {
            written += static_cast<int>(count);
        } else if (errno == EAGAIN) {
            // Terminals and pipes are shared, and somebody else has made this one non-blocking.
            pollfd stream = {descriptor, POLLOUT, 0};
            ::poll(&stream, 1, -1); // if it fails, the next write fails too
        } else if (errno != EINTR) {
            if (descriptor == STDOUT_FILENO)
                Q_EMIT outputClosed();
            return;
        }
    }
}

void Report::eraseLiveLine()
{
    if (m_isLive)
        write(STDOUT_FILENO, kEraseLine);
}

} // namespace vpnctl
