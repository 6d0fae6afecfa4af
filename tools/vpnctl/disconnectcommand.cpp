#include "disconnectcommand.h"

namespace vpnctl {

DisconnectCommand::DisconnectCommand(const Options &options, Report &report)
    : Command(options, report)
{
    connect(&session(), &VpnSession::opened, this, [this] {
        session().stopTunnel();
        awaitAnswer(std::chrono::seconds(0));
    });
    connect(&session(), &VpnSession::answered, this, &DisconnectCommand::handleAnswer);
}

void DisconnectCommand::start()
{
    session().openEndpoint(options().endpoint);
}

QString DisconnectCommand::activity(std::chrono::milliseconds) const
{
    return QStringLiteral("openvpn is stopping and the DNS settings are being restored");
}

void DisconnectCommand::handleAnswer(const QString &message, const OperationResult &result)
{
    // An attempt of another client that ends because of this command answers first.
    if (commandOf(message) != QLatin1String("disconnect"))
        return;
    report().answer(message, result, answerArrived());
    finish(result.success ? ExitCode::Done : ExitCode::Failed);
}

} // namespace vpnctl
