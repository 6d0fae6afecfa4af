#include "rawcommand.h"

#include "serverrecord.h"

namespace vpnctl {

RawCommand::RawCommand(const Options &options, Report &report)
    : Command(options, report)
{
    connect(&session(), &VpnSession::endpointCreated, &report, &Report::endpoint);
    connect(&session(), &VpnSession::opened, this, [this] {
        session().send(this->options().message, m_server);
        awaitAnswer(std::chrono::seconds(0));
    });
    connect(&session(), &VpnSession::answered, this,
            [this](const QString &message, const OperationResult &result) {
                this->report().answer(message, result, answerArrived());
                finish(result.success ? ExitCode::Done : ExitCode::Failed);
            });
}

void RawCommand::start()
{
    if (!options().recordPath.isEmpty()) {
        QString error;
        const std::optional<ServerRecord> record = readServerRecord(options().recordPath, &error);
        if (!record) {
            finishWith({ExitCode::WrongUse, error, {}});
            return;
        }
        m_server = record->server;
    }
    if (const auto problem = VpnSession::lengthProblem(options().message, m_server)) {
        finishWith(*problem);
        return;
    }
    if (options().endpoint != 0)
        session().openEndpoint(options().endpoint);
    else
        session().openNewEndpoint();
}

} // namespace vpnctl
