#!/bin/bash
# Installs the daemon on this Mac and starts it; uninstall.sh undoes it. Needs root.
#
# Usage: sudo packaging/macos/install.sh STAGE
#
# STAGE is where "cmake --install BUILD --component daemon --prefix STAGE" has put the bundle. Libraries
# that have been added in its Contents/Frameworks are installed with it.
# Written for bash 3.2, which macOS has.

set -euo pipefail
shopt -s nullglob

readonly app="/Applications/Talvex VPN.app"
readonly frameworks="$app/Contents/Frameworks"
# The names in Frameworks that come from here and not from the application, one a line.
readonly frameworksList="$app/Contents/Resources/talvexvpnd.frameworks"
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

# failIfWritable PATH [OPTION-OF-FIND]...: of what find finds, nothing may be for others to change.
failIfWritable() {
    local found
    found=$(find "$@" \( ! -user 0 -o ! -type l \( -perm -020 -o -perm -002 \) \))
    [[ -z $found ]] ||
        fail "others than root may write to ${found%%$'\n'*}; see: sudo chown -R root:wheel, chmod -R go-w"
}

# A library must lie where it is looked for: a link could lead to a folder that is somebody else's.
failIfLinksLeave() {
    local base link folder
    base=$(cd "$1" && pwd -P)
    while IFS= read -r link; do
        folder=$(cd "${link%/*}" && cd "$(dirname "$(readlink "$link")")" 2>/dev/null && pwd -P) || folder=
        [[ $folder/ == "$base"/* ]] || fail "$link is a link out of $1, or to nowhere"
    done < <(find "$1" -type l)
}

isListed() { grep -Fqx -e "$1" "$frameworksList" 2>/dev/null; }

installFrameworks() {
    local name library
    if [[ -e $frameworksList ]]; then
        while IFS= read -r name; do
            rm -rf "${frameworks:?}/${name:?}"
        done <"$frameworksList"
        rm "$frameworksList"
    fi
    [[ -d $staged/Frameworks ]] || return 0
    install -o 0 -g 0 -m 644 /dev/null "$frameworksList"
    for library in "$staged"/Frameworks/*; do
        # The name goes first, so that what is half installed can be removed.
        echo "${library##*/}" >>"$frameworksList"
        cp -RP "$library" "$frameworks/"
        chmod -R u=rwX,go=rX "$frameworks/${library##*/}"
    done
}

[[ $# -eq 1 ]] || fail "usage: install.sh STAGE"
((EUID == 0)) || fail "this needs root: sudo $0 $*"
readonly staged="$1/Talvex VPN.app/Contents"
readonly programs=(MacOS/talvexvpnd MacOS/openvpn Resources/update_conf_up Resources/update_conf_down)
for program in "${programs[@]}"; do
    [[ -x $staged/$program ]] || fail "there is no program $staged/$program"
done

# What root runs must not be for ordinary users to replace. (Administrators may write to /Applications, so
# they can put another bundle there; but they may become root anyway.)
folders=("$app" "$app/Contents" "$app/Contents/MacOS" "$app/Contents/Resources")
[[ ! -d $staged/Frameworks ]] || folders+=("$frameworks")
for folder in "${folders[@]}"; do
    [[ ! -L $folder ]] || fail "$folder is a link and not a folder"
    [[ -d $folder ]] || install -d -o 0 -g 0 -m 755 "$folder"
    failIfWritable "$folder" -prune
done

# The programs look for libraries there, whoever brought them.
if [[ -e $frameworks || -L $frameworks ]]; then
    [[ ! -L $frameworks ]] || fail "$frameworks is a link and not a folder"
    failIfWritable "$frameworks"
    failIfLinksLeave "$frameworks"
fi
if [[ -d $staged/Frameworks ]]; then
    failIfLinksLeave "$staged/Frameworks"
    for library in "$staged"/Frameworks/*; do
        [[ ! -e $frameworks/${library##*/} ]] || isListed "${library##*/}" ||
            fail "the application has a ${library##*/} of its own; take yours out of $staged/Frameworks"
    done
fi

stopJob
for program in "${programs[@]}"; do
    install -o 0 -g 0 -m 755 "$staged/$program" "$app/Contents/$program"
done
installFrameworks
install -o 0 -g 0 -m 644 "$here/TalvexVpnd.plist" "$plist"
[[ -e /var/log/talvexvpnd.log ]] || install -o 0 -g 0 -m 640 /dev/null /var/log/talvexvpnd.log
launchctl bootstrap system "$plist"
echo "Installed and started. The log is /var/log/talvexvpnd.log."
