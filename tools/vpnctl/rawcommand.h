#pragma once

#include "command.h"

namespace vpnctl {

/// Sends a text as a command, right or wrong, and prints the first answer.
class RawCommand : public Command
{
    Q_OBJECT

public:
    RawCommand(const Options &options, Report &report);
    void start() override;

private:
    VpnServerInformation m_server;
};

} // namespace vpnctl
