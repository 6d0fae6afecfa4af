#!/bin/bash
# Installs the daemon on this Mac and starts it; uninstall.sh undoes it. Needs root.
#
# Usage: sudo packaging/macos/install.sh STAGE
#
# STAGE is where "cmake --install BUILD --component daemon --prefix STAGE" has put the bundle. Libraries
# that have been added in its Contents/Frameworks/talvexvpnd are installed with it.
#
# Everything is copied beside what is there before the daemon is stopped, and only renamed afterwards. When
# something fails, what was there comes back, and runs.
# Written for bash 3.2, which macOS has.

set -euo pipefail
shopt -s nullglob

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=packaging/macos/installation.bash
source "$here/installation.bash"

targets=()   # what is replaced, or removed where it has no successor
swapped=0    # how many of them have been set aside
folders=()   # those that were made for it
jobs=()      # what ran before, "JOB PROPERTY-LIST"
isStopping=
isDone=

# A library must lie where it is looked for: a link could lead to a folder that is somebody else's.
failIfLinksLeave() {
    local base link folder
    base=$(cd "$1" && pwd -P)
    while IFS= read -r link; do
        folder=$(cd "${link%/*}" && cd "$(dirname "$(readlink "$link")")" 2>/dev/null && pwd -P) || folder=
        [[ $folder/ == "$base"/* ]] || fail "$link is a link out of $1, or to nowhere"
    done < <(find "$1" -type l)
}

makeFolder() {
    [[ ! -d $1 ]] || return 0
    makeFolder "${1%/*}"
    folders+=("$1")
    install -d -o 0 -g 0 -m 755 "$1"
}

# prepare TARGET [MODE SOURCE]: puts the target's successor beside it.
prepare() {
    # What an interrupted installation has left.
    rm -rf "$1$new"
    if isThere "$1"; then
        rm -rf "$1$old"
    elif isThere "$1$old"; then
        mv "$1$old" "$1"
    fi
    targets+=("$1")
    [[ $# -eq 1 ]] || install -o 0 -g 0 -m "$2" "$3" "$1$new"
}

prepareLibraries() {
    prepare "$libraries"
    [[ -d $stagedLibraries ]] || return 0
    makeFolder "${libraries%/*}"
    cp -RP "$stagedLibraries" "$libraries$new"
    chmod -R u=rwX,go=rX "$libraries$new"
}

prepareAll() {
    local program folder
    for folder in "$contents/MacOS" "$contents/Resources" "$support" "$data" /var/log; do
        makeFolder "$folder"
    done
    for program in "${programs[@]}"; do prepare "$contents/$program" 755 "$staged/$program"; done
    prepareLibraries
    prepare "$launcher" 755 "$here/launcher"
    prepare "$support/update_conf_down" 755 "$staged/Resources/update_conf_down"
    prepare "$support/uninstall.sh" 755 "$here/uninstall.sh"
    prepare "$support/installation.bash" 644 "$here/installation.bash"
    prepare "$daemonPlist" 644 "$here/TalvexVpnd.plist"
    prepare "$restorePlist" 644 "$here/TalvexRestore.plist"
    [[ -e $log ]] || prepare "$log" 640 /dev/null
}

swap() {
    local target
    for target in "${targets[@]}"; do
        if isThere "$target"; then mv "$target" "$target$old"; fi
        swapped=$((swapped + 1))
        if isThere "$target$new"; then mv "$target$new" "$target"; fi
    done
}

putBack() {
    local target index
    for ((index = 0; index < swapped; index++)); do
        target=${targets[index]}
        if isThere "$target$old"; then
            rm -rf "$target"
            mv "$target$old" "$target"
        elif ! isThere "$target$new"; then
            rm -rf "$target"
        fi
    done
    for target in ${targets[@]+"${targets[@]}"}; do rm -rf "$target$new"; done
    for ((index = ${#folders[@]} - 1; index >= 0; index--)); do rmdir "${folders[index]}"; done
}

finish() {
    local entry
    trap - EXIT
    set +e
    [[ -z $isDone ]] || exit 0
    if [[ -n $isStopping ]]; then
        stopJob "$restoreJob"
        stopJob "$job"
        removeSockets
    fi
    putBack
    if [[ -n $isStopping ]]; then
        for entry in ${jobs[@]+"${jobs[@]}"}; do
            isLoaded "${entry%% *}" || startJob "${entry%% *}" "${entry#* }"
        done
        echo "install.sh: nothing was installed; what was there is back" >&2
    fi
    exit 1
}

[[ $# -eq 1 ]] || fail "usage: install.sh STAGE"
((EUID == 0)) || fail "this needs root: sudo $0 $*"
readonly staged="$1/Talvex VPN.app/Contents"
readonly stagedLibraries="$staged/${libraries#"$contents/"}"
readonly programs=(MacOS/talvexvpnd MacOS/openvpn Resources/update_conf_up Resources/update_conf_down)
for program in "${programs[@]}"; do
    [[ -x $staged/$program ]] || fail "there is no program $staged/$program"
done
checkFolders
[[ ! -d $stagedLibraries ]] || failIfLinksLeave "$stagedLibraries"

trap finish EXIT
trap 'exit 1' HUP INT TERM
prepareAll
if isLoaded "$job"; then jobs+=("$job $daemonPlist"); fi
if isLoaded "$restoreJob"; then jobs+=("$restoreJob $restorePlist"); fi

# The new daemon's start gives back what openvpn may have left of the DNS settings.
isStopping=yes
endTunnels
stopJob "$restoreJob"
stopJob "$job"
swap
startJob "$job" "$daemonPlist"
startJob "$restoreJob" "$restorePlist"
isDone=yes
for target in "${targets[@]}"; do rm -rf "$target$old"; done
echo "Installed and started. The log is $log."
