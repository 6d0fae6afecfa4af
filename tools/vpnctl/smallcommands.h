#pragma once

#include "command.h"

namespace vpnctl {

/// @return the object for any command but connect.
std::unique_ptr<Command> createSmallCommand(const Options &options, Report &report);

} // namespace vpnctl
