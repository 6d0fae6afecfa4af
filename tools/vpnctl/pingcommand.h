#pragma once

#include "command.h"

namespace vpnctl {

/// Asks the daemon for its main interface, and for nothing more: an endpoint would stay behind.
class PingCommand : public Command
{
    Q_OBJECT

public:
    PingCommand(const Options &options, Report &report);
    void start() override;

private:
    QElapsedTimer m_roundTrip;
};

} // namespace vpnctl
