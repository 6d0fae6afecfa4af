#pragma once

#include "operationresult.h"

#include <QtCore/QJsonObject>
#include <QtCore/QMap>
#include <QtCore/QObject>

#include <chrono>
#include <optional>

#include <unistd.h>

namespace vpnctl {

/// What the program says to the shell; the manual page repeats this list.
enum ExitCode {
    Done = 0,
    Failed = 1, ///< The daemon answered failure, or the tunnel has gone.
    WrongUse = 2, ///< Command line, profile, record or endpoint number are wrong.
    NoDaemon = 3, ///< The daemon is not there, has gone, or closed the connection.
    NoAnswer = 4, ///< The daemon did not answer in time.
    Interrupted = 130, ///< Stopped from outside before the work was done.
};

/// Why the program cannot go on. What reads the command line and its files throws it.
struct Problem
{
    ExitCode exitCode = ExitCode::WrongUse;
    QString text; ///< One sentence: what is wrong.
    QString advice; ///< What to do about it; may be empty.
};

/// @return the problem of a command line, a file or an endpoint's number that is wrong.
inline Problem wrongUse(const QString &text, const QString &advice = {})
{
    return {ExitCode::WrongUse, text, advice};
}

using Seconds = std::chrono::duration<double>;

/// What a localisation key of the daemon means, in plain English.
struct Explanation
{
    QString text; ///< What happened, one sentence.
    QString advice; ///< What to do about it; empty for a key that is not known.
};

/// @return every key that the daemon has.
QMap<QString, Explanation> explanations();

/// @param message the JSON text of an answer.
/// @return "connect" or "disconnect"; empty when the text says neither.
QString commandOf(const QString &message);

/// @return how many columns the terminal has to which @p descriptor writes; 0 when it is none.
int terminalWidth(int descriptor);

/// Breaks the lines of a text at blanks.
/// @param width how many characters a line may have; a longer word stays whole. 0 breaks nothing.
QString wrapped(QString text, int width);

/// What the program prints: sentences for people, or one JSON object a line for programs. In
/// JSON everything goes to standard output; sentences go there too, except notes and errors, which
/// go to standard error.
class Report : public QObject
{
    Q_OBJECT

public:
    enum class Form { Text, Json };

    explicit Report(Form form);
    ~Report() override;

    /// Prints an event.
    /// @param fields what JSON says beside the event's name; for people there is @p text.
    void print(const char *event, QJsonObject fields, const QString &text,
               int descriptor = STDOUT_FILENO);

    void note(const QString &text);
    void problem(const Problem &problem);

    /// @param message the JSON text that came with the result.
    /// @param elapsed since the command; nothing when somebody else gave it.
    void answer(const QString &message, const OperationResult &result,
                std::optional<Seconds> elapsed);

    /// The daemon has not answered yet: on a terminal in one line that is overwritten, elsewhere in
    /// a new line.
    /// @param elapsed since it was asked.
    void waiting(Seconds elapsed);

    /// @return whether waiting() overwrites its line, so that it may be called often.
    bool isLive() const { return m_isLive; }

Q_SIGNALS:
    /// Nobody reads standard output any more.
    void outputClosed();

private:
    void write(int descriptor, const QByteArray &bytes);
    void eraseLiveLine();

    Form m_form;
    bool m_isLive = false;
};

} // namespace vpnctl
