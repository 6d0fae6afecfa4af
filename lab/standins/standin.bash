# What the stand-ins have in common. Sourced by them; makes the folder in which one keeps its state,
# /var/root/stand-ins/NAME. In it lies the file "journal", with one line a call: the arguments, each
# quoted by bash's printf %q and followed by a blank. `eval "arguments=($line)"` gives them back exactly.

set -f
umask 022

readonly allState=/var/root/stand-ins
readonly state=$allState/${0##*/}
[[ -d $state ]] || mkdir -p "$state"

journalCall() {
    local line
    (($#)) && printf -v line '%q ' "$@"
    printf '%s\n' "$line" >>"$state/journal"
}

# Replaces the file $1 of the state by standard input, at once for every reader.
replaceState() {
    cat >"$state/.new.$$" && mv -f "$state/.new.$$" "$state/$1"
}

fail() {
    printf '%s\n' "$1" >&2
    exit "${2:-1}"
}
