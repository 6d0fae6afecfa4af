#include "explain.h"

namespace vpnctl {

namespace {

struct Entry
{
    const char *key;
    const char *text;
    const char *advice;
};

constexpr Entry kEntries[] = {
    {"label.can_not_create_config_for_open_vpn",
     "The daemon could not write the configuration file for openvpn.",
     "Check that the disk of the daemon's temporary folder has room and is writable."},
    {"warning.open_vpn_running_fails_check_apps",
     "The openvpn program could not be started, or too many connections are open.",
     "Check that \"openvpn\" lies next to the daemon, that it may be executed, and that no "
     "security program blocks it. The daemon's log tells when connections are too many."},
    {"warning.open_vpn_does_not_exists_try_another_protocol",
     "The openvpn program could not be started, or is missing.",
     "Check that \"openvpn\" lies next to the daemon and may be executed. Reinstall the "
     "application if it is missing."},
    {"warning.open_vpn_connection_time_out",
     "The tunnel was not up after 16 seconds, or openvpn ended by itself however often it was "
     "started.",
     "The daemon's log has what openvpn said. Check certificate and key, which openvpn may have "
     "refused, then host and port. Try the other transport (--udp or --tcp) or another server."},
    {"warning.open_vpn_server_does_not_respond",
     "openvpn had nothing to say for 10 seconds, not even its version.",
     "Something holds openvpn up where the daemon runs, a security program for example. A server "
     "that is silent shows as a time-out instead."},
    {"warning.can_not_open_vpn_check_is_admin_granted",
     "openvpn reported an error, or was stopped by a newer command or a missing heartbeat.",
     "The daemon's log has what openvpn said. \"VERIFY ERROR\" means that the authority's "
     "certificate (ca) is the wrong one, or that the server is a false one. Otherwise check "
     "that the daemon runs as root, and that certificate and key belong to this server."},
};

} // namespace

Explanation explain(const QString &key)
{
    for (const Entry &entry : kEntries) {
        if (key == QLatin1String(entry.key))
            return {QString::fromLatin1(entry.text), QString::fromLatin1(entry.advice)};
    }
    return {key, {}};
}

QStringList explainedKeys()
{
    QStringList keys;
    for (const Entry &entry : kEntries)
        keys.append(QString::fromLatin1(entry.key));
    return keys;
}

} // namespace vpnctl
