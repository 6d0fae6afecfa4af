#!/bin/bash
# Stops the daemon, gives the DNS settings back and removes what install.sh has installed, the daemon's
# log and its data included. The rest of the application stays. Needs root.
#
# Usage: sudo packaging/macos/uninstall.sh
#
# Written for bash 3.2, which macOS has.

set -euo pipefail

readonly contents="/Applications/Talvex VPN.app/Contents"
readonly frameworksList="$contents/Resources/talvexvpnd.frameworks"
readonly data=/var/root/Library/Preferences/talvexvpnd/data
readonly job=system/com.talvex.talvexvpnd

fail() { echo "uninstall.sh: $1" >&2; exit 1; }

# bootout may come back before the job has ended.
stopJob() {
    local tries=150
    while launchctl print "$job" >/dev/null 2>&1; do
        launchctl bootout "$job" 2>/dev/null || sleep 0.2
        ((tries-- > 0)) || fail "$job does not end"
    done
}

[[ $# -eq 0 ]] || fail "usage: uninstall.sh"
((EUID == 0)) || fail "this needs root: sudo $0"

stopJob
# In case that openvpn came to no orderly end. The backup files are the only record of the settings, so
# nothing goes before they are applied.
if [[ -x $contents/Resources/update_conf_down && -n $(find "$data" -type f 2>/dev/null) ]]; then
    "$contents/Resources/update_conf_down" ||
        fail "the DNS settings cannot be given back; the daemon is stopped, and nothing was removed. \
Put them right by hand, remove the files in $data, and start this again"
fi

rm -f /Library/LaunchDaemons/TalvexVpnd.plist
rm -f "$contents/MacOS/talvexvpnd" "$contents/MacOS/openvpn"
rm -f "$contents/Resources/update_conf_up" "$contents/Resources/update_conf_down"
if [[ -e $frameworksList ]]; then
    while IFS= read -r name; do
        rm -rf "${contents:?}/Frameworks/${name:?}"
    done <"$frameworksList"
    rm -f "$frameworksList"
fi
rm -f /var/log/talvexvpnd.log
rm -rf /tmp/local:TalvexFreeVpnIpcInterface /tmp/local:TalvexFreeVpnIpcInterface_*
rm -rf /var/root/Library/Preferences/talvexvpnd
# Only where nothing else is in them.
rmdir "$contents/MacOS" "$contents/Resources" "$contents/Frameworks" 2>/dev/null || true
rmdir "$contents" "${contents%/Contents}" 2>/dev/null || true
echo "Uninstalled."
