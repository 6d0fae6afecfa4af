# shellcheck shell=bash disable=SC2034
# What install.sh and uninstall.sh have in common. Both source it; it lies beside them.
#
# Written for bash 3.2, which macOS has.

readonly app="/Applications/Talvex VPN.app"
readonly contents="$app/Contents"
# Where the programs look for libraries first; the application keeps its own one folder above.
readonly libraries="$contents/Frameworks/talvexvpnd"
# Outside the application, so that it is there when the application has gone.
readonly support="/Library/Application Support/Talvex VPN Service"
readonly launcher="$support/Talvex VPN Service"
readonly data=/var/root/Library/Preferences/talvexvpnd/data
readonly daemonPlist=/Library/LaunchDaemons/TalvexVpnd.plist
readonly restorePlist=/Library/LaunchDaemons/TalvexRestore.plist
readonly log=/var/log/talvexvpnd.log
readonly job=system/com.talvex.talvexvpnd
readonly restoreJob=system/com.talvex.restore
# What an installation puts beside a file: the new one, and the old one until all is done.
readonly new=.talvex-new
readonly old=.talvex-old

fail() { echo "${0##*/}: $1" >&2; exit 1; }

isThere() { [[ -e $1 || -L $1 ]]; }

isLoaded() { launchctl print "$1" >/dev/null 2>&1; }

# bootout may come back before the job has ended.
stopJob() {
    local tries=150
    while isLoaded "$1"; do
        launchctl bootout "$1" 2>/dev/null || sleep 0.2
        if ((tries-- <= 0)); then
            echo "${0##*/}: $1 does not end" >&2
            return 1
        fi
    done
}

# launchd starts no job that somebody has switched off.
startJob() { launchctl enable "$1" && launchctl bootstrap system "$2"; }

# A daemon that ended leaves them.
removeSockets() {
    find /tmp/ -maxdepth 1 \( -name local:TalvexFreeVpnIpcInterface -o \
        -name 'local:TalvexFreeVpnIpcInterface_*' \) -exec rm -rf {} +
}

# Ends the openvpn of the daemon as a disconnect does, so that it gives the DNS settings back. What has
# not ended then, launchd ends with the job.
endTunnels() {
    local daemon tries=75
    daemon=$(launchctl print "$job" 2>/dev/null | sed -n 's/^[[:space:]]*pid = //p') || return 0
    daemon=${daemon%%$'\n'*}
    [[ -n $daemon ]] || return 0
    pkill -P "$daemon" -x openvpn || return 0
    while ((tries-- > 0)) && pgrep -P "$daemon" -x openvpn >/dev/null; do sleep 0.2; done
}

# failIfWritable PATH [OPTION-OF-FIND]...: fails when others than root may change what find finds.
failIfWritable() {
    local found
    found=$(find "$@" \( ! -user 0 -o ! -type l \( -perm -020 -o -perm -002 \) \))
    [[ -z $found ]] || fail "others than root may write to ${found%%$'\n'*}, and who may change what root \
runs is root. To make the application root's: sudo chown -R root:wheel \"$app\"; sudo chmod -R go-w \"$app\""
}

# What root runs or removes must not be for ordinary users to replace. (Administrators may write to
# /Applications, so they can put another bundle there; but they may become root anyway.)
checkFolders() {
    local folder
    for folder in "$app" "$contents" "$contents"/{MacOS,Resources,Frameworks} "$libraries" "$support"; do
        [[ ! -L $folder ]] || fail "$folder is a link and not a folder"
        [[ ! -d $folder ]] || failIfWritable "$folder" -prune
    done
}
