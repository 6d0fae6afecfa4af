#pragma once

#include "command.h"

namespace vpnctl {

/// Prints the answers of an endpoint until it is told to stop.
class WatchCommand : public Command
{
    Q_OBJECT

public:
    WatchCommand(const Options &options, Report &report);
    void start() override;

    /// Watching has no other end, so being stopped is success.
    void stop() override;
};

} // namespace vpnctl
