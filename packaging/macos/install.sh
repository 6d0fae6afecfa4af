#!/bin/bash
# Installs the daemon on this Mac and starts it; uninstall.sh undoes it. Needs root.
#
# Usage: sudo packaging/macos/install.sh STAGE
#
# STAGE is where "cmake --install BUILD --component daemon --prefix STAGE" has put the bundle.
# Written for bash 3.2, which macOS has.

set -euo pipefail

readonly app="/Applications/Talvex VPN.app"
readonly job=system/com.talvex.talvexvpnd
readonly plist=/Library/LaunchDaemons/TalvexVpnd.plist
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

fail() { echo "install.sh: $1" >&2; exit 1; }

# bootout may come back before the job has ended.
stopJob() {
    local tries=150
    while launchctl print "$job" >/dev/null 2>&1; do
        launchctl bootout "$job" 2>/dev/null || sleep 0.2
        ((tries-- > 0)) || fail "$job does not end"
    done
}

[[ $# -eq 1 ]] || fail "usage: install.sh STAGE"
((EUID == 0)) || fail "this needs root: sudo $0 $*"
readonly staged="$1/Talvex VPN.app/Contents"
readonly programs=(MacOS/talvexvpnd MacOS/openvpn Resources/update_conf_up Resources/update_conf_down)
for program in "${programs[@]}"; do
    [[ -x $staged/$program ]] || fail "there is no program $staged/$program"
done

# What root runs must not be anybody's to replace.
folders=("$app" "$app/Contents" "$app/Contents/MacOS" "$app/Contents/Resources")
for folder in "${folders[@]}"; do
    [[ -d $folder ]] || install -d -o 0 -g 0 -m 755 "$folder"
    [[ -z $(find "$folder" -prune \( ! -user 0 -o -perm -020 -o -perm -002 \)) ]] ||
        fail "others than root may write to $folder; see: sudo chown -R root:wheel, chmod -R go-w"
done

stopJob
for program in "${programs[@]}"; do
    install -o 0 -g 0 -m 755 "$staged/$program" "$app/Contents/$program"
done
install -d -o 0 -g 0 -m 755 /etc/newsyslog.d
install -o 0 -g 0 -m 644 "$here/talvexvpnd.newsyslog.conf" /etc/newsyslog.d/talvexvpnd.conf
install -o 0 -g 0 -m 644 "$here/TalvexVpnd.plist" "$plist"
[[ -e /var/log/talvexvpnd.log ]] || install -o 0 -g 0 -m 640 /dev/null /var/log/talvexvpnd.log
launchctl bootstrap system "$plist"
echo "Installed and started. The log is /var/log/talvexvpnd.log."
