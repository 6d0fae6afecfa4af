#pragma once

#include "command.h"

namespace vpnctl {

/// @return the object for disconnect, ping, watch or raw.
std::unique_ptr<Command> createSmallCommand(const Options &options, Report &report);

} // namespace vpnctl
