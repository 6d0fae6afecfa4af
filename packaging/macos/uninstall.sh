#!/bin/bash
# Stops the daemon, gives the DNS settings back and removes what install.sh has installed, the daemon's
# log and its data included. The rest of the application stays. Needs root.
#
# Usage: sudo packaging/macos/uninstall.sh
#    or: sudo "/Library/Application Support/Talvex VPN Service/uninstall.sh"
#
# Written for bash 3.2, which macOS has.

set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=packaging/macos/installation.bash
source "$here/installation.bash"

# Files of ".saving_" hold nothing that a service has lost.
backups() { find "$data" -type f ! -name '.saving_*' 2>/dev/null || true; }

# In case that openvpn came to no orderly end. The backup files are the only record of the settings, so
# nothing goes before they are applied.
giveDnsBack() {
    local script=$support/update_conf_down
    [[ -n $(backups) ]] || return 0
    [[ -e $script ]] || script=$contents/Resources/update_conf_down
    if [[ -x $script ]]; then
        failIfWritable "$script"
        "$script" || true
    fi
    [[ -z $(backups) ]] || fail "the DNS settings cannot be given back; the daemon is stopped, and nothing \
was removed. Put them right by hand, remove the files in $data, and start this again"
}

removeAll() {
    local path
    for path in "$daemonPlist" "$restorePlist" "$log" "$libraries" "$contents"/MacOS/{talvexvpnd,openvpn} \
        "$contents"/Resources/update_conf_{up,down} \
        "$launcher" "$support"/{update_conf_down,uninstall.sh,installation.bash}; do
        rm -rf "$path" "$path$new" "$path$old"
    done
    removeSockets
    rm -rf "${data%/*}"
    # Only where nothing else is in them.
    rmdir "$contents"/{MacOS,Resources,Frameworks} "$support" 2>/dev/null || true
    rmdir "$contents" "$app" 2>/dev/null || true
}

# Bash reads a function as a whole. The file itself is removed while this one runs.
main() {
    [[ $# -eq 0 ]] || fail "usage: uninstall.sh"
    ((EUID == 0)) || fail "this needs root: sudo $0"
    checkFolders
    endTunnels
    stopJob "$restoreJob"
    stopJob "$job"
    giveDnsBack
    removeAll
    echo "Uninstalled."
    exit
}

main "$@"
