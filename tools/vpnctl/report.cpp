#include "report.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QRegularExpression>

#include <cerrno>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vpnctl {

namespace {

const char kEraseLine[] = "\r\x1b[K";

const QMap<QString, Explanation> kExplanations = {
    {"label.can_not_create_config_for_open_vpn",
     {"The daemon could not write the configuration file for openvpn.",
      "Check that the disk of the daemon's temporary folder has room and is writable."}},
    {"warning.open_vpn_running_fails_check_apps",
     {"The openvpn program could not be started, or too many connections are open.",
      "Check that \"openvpn\" lies next to the daemon, that it may be executed, and that no "
      "security program blocks it. The daemon's log tells when connections are too many."}},
    {"warning.open_vpn_does_not_exists_try_another_protocol",
     {"The openvpn program could not be started, or is missing.",
      "Check that \"openvpn\" lies next to the daemon and may be executed. Reinstall the "
      "application if it is missing."}},
    {"warning.open_vpn_connection_time_out",
     {"The tunnel was not up after 16 seconds, or openvpn ended by itself however often it was "
      "started.",
      "The daemon's log, /var/log/talvexvpnd.log, has what openvpn said. Check certificate and "
      "key, which openvpn may have refused, then host and port. Try the other transport (--udp or "
      "--tcp) or another server."}},
    {"warning.open_vpn_server_does_not_respond",
     {"openvpn had nothing to say for 10 seconds, not even its version.",
      "Something holds openvpn up where the daemon runs, a security program for example. A server "
      "that is silent shows as a time-out instead."}},
    {"warning.can_not_open_vpn_check_is_admin_granted",
     {"openvpn reported an error, or was stopped by a newer command or a missing heartbeat.",
      "The daemon's log, /var/log/talvexvpnd.log, has what openvpn said. \"VERIFY ERROR\" means "
      "that the authority's certificate (ca) is the wrong one, or that the server is a false one. "
      "Otherwise check that the daemon runs as root, and that certificate and key belong to this "
      "server."}},
};

/// @return seconds with as many digits as are worth knowing.
QString secondsText(Seconds time)
{
    return QString::number(time.count(), 'f', 1);
}

} // namespace

QMap<QString, Explanation> explanations()
{
    return kExplanations;
}

QString commandOf(const QString &message)
{
    return QJsonDocument::fromJson(message.toUtf8())["cmd"].toString();
}

int terminalWidth(int descriptor)
{
    constexpr int kStandardWidth = 80; // of a terminal that does not tell
    if (!isatty(descriptor))
        return 0;
    winsize size = {};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                        : kStandardWidth;
}

QString wrapped(QString text, int width)
{
    if (width <= 0)
        return text;
    // Of a line that is too long: as many words as there is room for, or one that is longer.
    const QRegularExpression tooLong(QString("(?=.{%1})(.{1,%2}|\\S+) ").arg(width + 1).arg(width));
    return text.replace(tooLong, "\\1\n");
}

Report::Report(Form form)
    : m_form(form)
    , m_isLive(form == Form::Text && ::isatty(STDOUT_FILENO) && qgetenv("TERM") != "dumb")
{
}

Report::~Report()
{
    eraseLiveLine();
}

void Report::note(const QString &text)
{
    print("note", {{"text", text}}, "Note: " + text, STDERR_FILENO);
}

void Report::problem(const Problem &problem)
{
    QString text = "vpnctl: " + problem.text;
    if (!problem.advice.isEmpty())
        text += "\nWhat to do: " + problem.advice;
    print("error", {{"exit", problem.exitCode}, {"text", problem.text}, {"advice", problem.advice}},
          text, STDERR_FILENO);
}

void Report::waiting(Seconds elapsed)
{
    // So short that it has room in every window: what is left of a line that was broken when the
    // window became narrower cannot be erased.
    const QString text = QString("Waiting for the daemon: %1 s").arg(secondsText(elapsed));
    if (!m_isLive)
        return print("waiting", {{"seconds", secondsText(elapsed).toDouble()}}, text);
    write(STDOUT_FILENO, kEraseLine + text.toUtf8());
}

void Report::answer(const QString &message, const OperationResult &result,
                    std::optional<Seconds> elapsed)
{
    const QString command = commandOf(message);
    // What is no known key is a text itself.
    const Explanation explanation = kExplanations.value(result.message, {result.message, {}});

    QString text;
    if (command == "connect")
        text = result.success ? "Connected" : "Not connected";
    else if (command == "disconnect")
        text = result.success ? "Disconnected" : "Not disconnected";
    else
        text = QString("Answer %1").arg(message);
    if (elapsed)
        text += QString(" after %1 s").arg(secondsText(*elapsed));
    if (result.message.isEmpty()) {
        text += '.';
    } else {
        text += ": " + explanation.text;
        if (!explanation.advice.isEmpty())
            text += QString("\nWhat to do: %1\nKey: %2").arg(explanation.advice, result.message);
    }

    print("answer",
          {{"command", command},
           {"success", result.success},
           {"code", result.code},
           {"key", result.message},
           {"message", message},
           {"seconds", elapsed ? QJsonValue(secondsText(*elapsed).toDouble()) : QJsonValue()},
           {"text", explanation.text},
           {"advice", explanation.advice}},
          text);
}

void Report::print(const char *event, QJsonObject fields, const QString &text, int descriptor)
{
    if (m_form == Form::Json) {
        fields.insert("event", event);
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
