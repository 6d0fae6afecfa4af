#pragma once

#include "dnsscripts.h"

/// Restores the DNS settings that an earlier run left changed, and logs what that printed.
///
/// Blocks without turning the event loop. Failures show only in the log.
/// @param limit how long the script may run before it is ended.
void checkDNS(std::chrono::milliseconds limit = vpncore::kDnsScriptLimit);
