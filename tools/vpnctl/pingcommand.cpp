#include "pingcommand.h"

namespace vpnctl {

PingCommand::PingCommand(const Options &options, Report &report)
    : Command(options, report)
{
    connect(&session(), &VpnSession::reached, this, [this] {
        this->report().pong(std::chrono::nanoseconds(m_roundTrip.nsecsElapsed()));
        finish(ExitCode::Done);
    });
}

void PingCommand::start()
{
    m_roundTrip.start();
    session().reach();
}

} // namespace vpnctl
