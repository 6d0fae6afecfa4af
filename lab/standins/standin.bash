# What the stand-ins have in common. Sourced by them, when "self" is the script's own name and not that
# of a link to it; makes the folder in which one keeps its state, /var/root/stand-ins/NAME. In it lies the
# file "journal", with one line a call: the arguments, each quoted by bash's printf %q and followed by a
# blank. `eval "arguments=($line)"` gives them back exactly.

set -f
umask 022

readonly allState=${TALVEX_STANDIN_STATE:-/var/root/stand-ins}
readonly state=$allState/${self##*/}
[[ -d $state ]] || mkdir -p "$state"

journalCall() {
    local line
    (($#)) && printf -v line '%q ' "$@"
    printf '%s\n' "$line" >>"$state/journal"
}

fail() {
    printf '%s\n' "$1" >&2
    exit 1
}
