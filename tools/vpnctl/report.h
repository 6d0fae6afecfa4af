#pragma once

#include "operationresult.h"
#include "problem.h"
#include "target.h"

#include <QtCore/QJsonObject>
#include <QtCore/QObject>

#include <chrono>
#include <optional>

namespace vpnctl {

/// What the program prints: sentences for people, or one JSON object a line for programs. In
/// JSON everything goes to standard output; sentences go there too, except notes and errors, which
/// go to standard error.
class Report : public QObject
{
    Q_OBJECT

public:
    enum class Form { Text, Json };

    explicit Report(Form form, QObject *parent = nullptr);
    ~Report() override;

    void note(const QString &text);
    void problem(const Problem &problem);

    /// Tells a sentence for each.
    void weaknesses(const Weaknesses &weaknesses);

    void pong(std::chrono::nanoseconds roundTrip);
    void endpoint(int endpoint);

    /// @param attempt from 1.
    void connecting(const Target &target, int attempt, int attempts);

    /// Shows how far a command is that waits for its answer: on a terminal in one line that is
    /// overwritten, elsewhere in a new line.
    /// @param activity what is happening, without a full stop.
    /// @param limit how long it may take; 0 when that cannot be told.
    void waiting(const QString &activity, std::chrono::milliseconds elapsed,
                 std::chrono::seconds limit);

    /// @return whether waiting() overwrites its line, so that it may be called often.
    bool isLive() const { return m_isLive; }

    /// @param message the JSON text that came with the result.
    /// @param elapsed since the command; nothing when somebody else gave it.
    void answer(const QString &message, const OperationResult &result,
                std::optional<std::chrono::milliseconds> elapsed);

    /// The tunnel is up and held.
    void holding(int endpoint);

    /// The tunnel is up and left alone.
    void detached(int endpoint);

    /// The answers of the endpoint follow as they come.
    void watching(int endpoint);

    void disconnecting();

    /// As disconnecting(), after an attempt that failed.
    void cleaningUp();

    /// The tunnel is down because somebody else sent the command.
    void takenDown(int endpoint);

    /// The daemon has heard no heartbeat and takes the tunnel down.
    void lapsed(int endpoint, std::chrono::milliseconds silence);

Q_SIGNALS:
    /// Nobody reads standard output any more.
    void outputClosed();

private:
    enum class Stream { Output, Error };

    void print(const QString &event, QJsonObject fields, const QString &text,
               Stream stream = Stream::Output);
    void write(Stream stream, const QByteArray &bytes);
    void clearLiveLine();

    Form m_form;
    bool m_isLive = false;
    bool m_hasLiveLine = false;
};

} // namespace vpnctl
