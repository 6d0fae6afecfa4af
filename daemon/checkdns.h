#pragma once

/// Restores the DNS settings that an earlier run left changed, and logs what that printed.
///
/// Blocks without turning the event loop. Failures show only in the log.
void checkDNS();
