#include "command.h"
#include "observation.h"
#include "target.h"

#include <cmath>

namespace vpnctl {

namespace {

/// Asks the daemon for its main interface, and for nothing more: an endpoint would stay behind. For
/// "status", what can be seen from outside comes before.
class PingCommand : public Command
{
public:
    using Command::Command;

    void start() override
    {
        if (m_options.command == Options::Command::Status)
            reportObservation(m_report);
        openMainSocket();
    }

private:
    void opened() override
    {
        const double milliseconds = std::round(answerArrived().count() * 1e6) / 1e3;
        m_report.print(
            "pong", {{"milliseconds", milliseconds}},
            QString("The daemon is there and answered after %1 ms.").arg(milliseconds, 0, 'f', 1));
        finish(ExitCode::Done);
    }
};

/// Prints the answers of an endpoint until it is told to stop.
class WatchCommand : public Command
{
public:
    using Command::Command;

    void start() override { openEndpoint(m_options.endpoint); }

    /// Watching has no other end, so being stopped is success.
    void stop() override { finish(ExitCode::Done); }

private:
    void opened() override
    {
        m_report.print("watching", {{"endpoint", m_endpoint}},
                       QString("Watching endpoint %1").arg(m_endpoint));
    }

    void answered(const QString &message, const OperationResult &result) override
    {
        m_report.answer(message, result, std::nullopt);
    }
};

/// Sends one command and prints its answer: a disconnect, or for raw any text.
class SendCommand : public Command
{
public:
    using Command::Command;

    void start() override
    {
        if (!m_options.recordPath.isEmpty())
            m_server = readServerRecord(m_options.recordPath);
        checkLength(m_options.message, m_server);
        if (m_options.endpoint != 0)
            openEndpoint(m_options.endpoint);
        else
            openNewEndpoint();
    }

private:
    void opened() override { send(m_options.message, m_server); }

    void answered(const QString &message, const OperationResult &result) override
    {
        // An attempt of another client that ends because of a disconnect answers first.
        if (m_options.command == Options::Command::Disconnect && commandOf(message) != "disconnect")
            return;
        m_report.answer(message, result, answerArrived());
        finish(result.success ? ExitCode::Done : ExitCode::Failed);
    }

    VpnServerInformation m_server;
};

} // namespace

std::unique_ptr<Command> Command::create(const Options &options, Report &report)
{
    switch (options.command) {
    case Options::Command::Connect:
        return makeConnectCommand(options, report);
    case Options::Command::Watch:
        return std::make_unique<WatchCommand>(options, report);
    case Options::Command::Disconnect:
    case Options::Command::Raw:
        return std::make_unique<SendCommand>(options, report);
    default:
        return std::make_unique<PingCommand>(options, report);
    }
}

} // namespace vpnctl
