#include "watchcommand.h"

namespace vpnctl {

WatchCommand::WatchCommand(const Options &options, Report &report)
    : Command(options, report)
{
    connect(&session(), &VpnSession::opened, this,
            [this] { this->report().watching(this->options().endpoint); });
    connect(&session(), &VpnSession::answered, this,
            [this](const QString &message, const OperationResult &result) {
                this->report().answer(message, result, std::nullopt);
            });
}

void WatchCommand::start()
{
    session().openEndpoint(options().endpoint);
}

void WatchCommand::stop()
{
    finish(ExitCode::Done);
}

} // namespace vpnctl
