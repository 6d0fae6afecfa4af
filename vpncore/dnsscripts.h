#pragma once

#include <QtCore/QString>

#include <chrono>

/// The scripts that give back, inspect and clear the DNS settings of all network services.
///
/// The backup files that the restore script consumes are written by the tunnel's up script into
/// /var/root/Library/Preferences/talvexvpnd/data: "TalvexFreeVPN_dns_" and
/// "TalvexFreeVPN_domain_", each followed by the service's name as
/// `networksetup -listallnetworkservices` prints it. They hold the former servers or search
/// domains, separated by blanks, or the word "Empty" (networksetup(8)).
namespace vpncore {

/// How long any of the scripts may run: many times what networksetup takes, and short enough for a
/// disconnect and for the start of the daemon, which both wait for it.
constexpr std::chrono::seconds kDnsScriptLimit{10};

/// @return whether there is a backup file: a service may then still carry a tunnel's settings.
bool hasDnsBackups();

/// @return the script that applies and removes the backup files.
QString dnsRestoreScript();

/// @return the script that prints the DNS server of each service that has exactly one IPv4 server.
QString dnsListingScript();

/// @return the script that clears DNS servers and search domains of every service.
QString dnsClearingScript();

} // namespace vpncore
