#include "smallcommands.h"

#include "targetreader.h"

namespace vpnctl {

namespace {

using namespace std::chrono_literals;

/// Asks the daemon for its main interface, and for nothing more: an endpoint would stay behind.
class PingCommand : public Command
{
public:
    PingCommand(const Options &options, Report &report)
        : Command(options, report)
    {
        connect(&session(), &VpnSession::reached, this, [this] {
            this->report().pong(std::chrono::nanoseconds(m_roundTrip.nsecsElapsed()));
            finish(ExitCode::Done);
        });
    }

    void start() override
    {
        m_roundTrip.start();
        session().reach();
    }

private:
    QElapsedTimer m_roundTrip;
};

/// Prints the answers of an endpoint until it is told to stop.
class WatchCommand : public Command
{
public:
    WatchCommand(const Options &options, Report &report)
        : Command(options, report)
    {
        connect(&session(), &VpnSession::opened, this,
                [this] { this->report().watching(this->options().endpoint); });
        connect(&session(), &VpnSession::answered, this,
                [this](const QString &message, const OperationResult &result) {
                    this->report().answer(message, result, std::nullopt);
                });
    }

    void start() override { session().openEndpoint(options().endpoint); }

    /// Watching has no other end, so being stopped is success.
    void stop() override { finish(ExitCode::Done); }
};

/// Sends one command and prints its answer.
class SendCommand : public Command
{
public:
    SendCommand(const Options &options, Report &report)
        : Command(options, report)
    {
        connect(&session(), &VpnSession::endpointCreated, &report, &Report::endpoint);
        connect(&session(), &VpnSession::opened, this, [this] {
            send();
            awaitAnswer(0s);
        });
        connect(&session(), &VpnSession::answered, this,
                [this](const QString &message, const OperationResult &result) {
                    if (!isMine(message))
                        return;
                    this->report().answer(message, result, answerArrived());
                    finish(result.success ? ExitCode::Done : ExitCode::Failed);
                });
    }

    void start() override
    {
        if (options().endpoint != 0)
            session().openEndpoint(options().endpoint);
        else
            session().openNewEndpoint();
    }

protected:
    virtual void send() = 0;
    virtual bool isMine(const QString &) const { return true; }
};

class DisconnectCommand : public SendCommand
{
    using SendCommand::SendCommand;

    void send() override { session().stopTunnel(); }

    /// An attempt of another client that ends because of this command answers first.
    bool isMine(const QString &message) const override
    {
        return commandOf(message) == QLatin1String("disconnect");
    }

    QString activity(std::chrono::milliseconds) const override
    {
        return QStringLiteral("openvpn is stopping and the DNS settings are being restored");
    }
};

/// Sends a text as it stands, right or wrong, and takes the first answer.
class RawCommand : public SendCommand
{
    using SendCommand::SendCommand;

    void start() override
    {
        if (!options().recordPath.isEmpty())
            m_server = readServerRecord(options().recordPath);
        VpnSession::checkLength(options().message, m_server);
        SendCommand::start();
    }

    void send() override { session().send(options().message, m_server); }

    VpnServerInformation m_server;
};

} // namespace

std::unique_ptr<Command> createSmallCommand(const Options &options, Report &report)
{
    switch (options.command) {
    case Options::Command::Disconnect:
        return std::make_unique<DisconnectCommand>(options, report);
    case Options::Command::Ping:
        return std::make_unique<PingCommand>(options, report);
    case Options::Command::Watch:
        return std::make_unique<WatchCommand>(options, report);
    default:
        return std::make_unique<RawCommand>(options, report);
    }
}

} // namespace vpnctl
