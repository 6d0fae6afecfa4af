#include "connectcommand.h"
#include "observation.h"
#include "reportfolder.h"
#include "targetreader.h"

#include <QtCore/QJsonArray>

#include <cmath>

namespace vpnctl {

namespace {

/// Asks the daemon for its main interface, and for nothing more: an endpoint would stay behind.
class PingCommand : public Command
{
public:
    PingCommand(const Options &options, Report &report)
        : Command(options, report)
    {
        connect(&session(), &VpnSession::reached, this, [this] {
            const auto microseconds = static_cast<double>(m_roundTrip.nsecsElapsed()) / 1e3;
            const double milliseconds = std::round(microseconds) / 1e3;
            this->report().print("pong", {{QStringLiteral("milliseconds"), milliseconds}},
                                 QStringLiteral("The daemon is there and answered after %1 ms.")
                                     .arg(milliseconds, 0, 'f', 1));
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

/// Prints what can be seen from outside, and then whether the daemon is there.
class StatusCommand : public PingCommand
{
    using PingCommand::PingCommand;

    void start() override
    {
        QJsonArray tunnels;
        QJsonArray lines;
        for (const TunnelInterface &tunnel : tunnelInterfaces()) {
            tunnels.append(QJsonObject{{QStringLiteral("name"), tunnel.name},
                                       {QStringLiteral("address"), tunnel.address},
                                       {QStringLiteral("bytesIn"), tunnel.bytesIn},
                                       {QStringLiteral("bytesOut"), tunnel.bytesOut}});
            lines.append(QStringLiteral("%1 with %2 (%3 bytes in, %4 out)")
                             .arg(tunnel.name, tunnel.address)
                             .arg(tunnel.bytesIn)
                             .arg(tunnel.bytesOut));
        }
        const QJsonArray dns = QJsonArray::fromStringList(dnsServers());
        const std::optional<QStringList> backups = dnsBackups();
        const QJsonArray backupNames = QJsonArray::fromStringList(backups.value_or(QStringList()));
        QJsonArray endpoints;
        for (const int endpoint : endpointsWithSockets())
            endpoints.append(endpoint);
        report().print(
            "observation",
            {{QStringLiteral("interfaces"), tunnels},
             {QStringLiteral("dns"), dns},
             {QStringLiteral("backups"), backups ? QJsonValue(backupNames) : QJsonValue()},
             {QStringLiteral("endpoints"), endpoints}},
            QStringLiteral("Tunnel interfaces: %1\n"
                           "DNS servers in use: %2\n"
                           "Backups of DNS settings: %3\n"
                           "Endpoints with a socket: %4")
                .arg(listed(lines), listed(dns),
                     backups ? listed(backupNames) : QStringLiteral("only root may see them"),
                     listed(endpoints)));
        PingCommand::start();
    }

private:
    static QString listed(const QJsonArray &values)
    {
        const QStringList texts = QVariant(values.toVariantList()).toStringList();
        return texts.isEmpty() ? QStringLiteral("none") : texts.join(QStringLiteral(", "));
    }
};

/// Makes a folder for a maintainer, with a daemon or without.
class ReportCommand : public Command
{
public:
    using Command::Command;

    void start() override
    {
        makeReportFolder(options().folder, report());
        finish(ExitCode::Done);
    }
};

/// Prints the answers of an endpoint until it is told to stop.
class WatchCommand : public Command
{
public:
    WatchCommand(const Options &options, Report &report)
        : Command(options, report)
    {
        const int endpoint = options.endpoint;
        connect(&session(), &VpnSession::opened, this, [this, endpoint] {
            this->report().print("watching", {{QStringLiteral("endpoint"), endpoint}},
                                 QStringLiteral("Watching endpoint %1").arg(endpoint));
        });
        connect(&session(), &VpnSession::answered, this,
                [this](const QString &message, const OperationResult &result) {
                    this->report().answer(message, result, std::nullopt);
                });
    }

    void start() override { session().openEndpoint(options().endpoint); }

    /// Watching has no other end, so being stopped is success.
    void stop() override { finish(ExitCode::Done); }
};

/// Sends one command and prints its answer: a disconnect, or for raw any text.
class SendCommand : public Command
{
public:
    SendCommand(const Options &options, Report &report)
        : Command(options, report)
        , m_isDisconnect(options.command == Options::Command::Disconnect)
        , m_message(m_isDisconnect ? disconnectMessage() : options.message)
    {
        connect(&session(), &VpnSession::endpointCreated, &report, &Report::endpoint);
        connect(&session(), &VpnSession::opened, this, [this] {
            session().send(m_message, m_server);
            awaitAnswer();
        });
        connect(&session(), &VpnSession::answered, this, &SendCommand::handleAnswer);
    }

    void start() override
    {
        if (!options().recordPath.isEmpty())
            m_server = readServerRecord(options().recordPath);
        checkLength(m_message, m_server);
        if (options().endpoint != 0)
            session().openEndpoint(options().endpoint);
        else
            session().openNewEndpoint();
    }

private:
    void handleAnswer(const QString &message, const OperationResult &result)
    {
        // An attempt of another client that ends because of a disconnect answers first.
        if (m_isDisconnect && commandOf(message) != QLatin1String("disconnect"))
            return;
        report().answer(message, result, answerArrived());
        finish(result.success ? ExitCode::Done : ExitCode::Failed);
    }

    bool m_isDisconnect;
    QString m_message;
    VpnServerInformation m_server;
};

} // namespace

std::unique_ptr<Command> Command::create(const Options &options, Report &report)
{
    switch (options.command) {
    case Options::Command::Connect:
        return std::make_unique<ConnectCommand>(options, report);
    case Options::Command::Ping:
        return std::make_unique<PingCommand>(options, report);
    case Options::Command::Status:
        return std::make_unique<StatusCommand>(options, report);
    case Options::Command::Report:
        return std::make_unique<ReportCommand>(options, report);
    case Options::Command::Watch:
        return std::make_unique<WatchCommand>(options, report);
    case Options::Command::Disconnect:
    case Options::Command::Raw:
        break;
    }
    return std::make_unique<SendCommand>(options, report);
}

} // namespace vpnctl
