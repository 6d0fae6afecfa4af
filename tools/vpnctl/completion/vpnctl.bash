# bash completion for vpnctl. Needs nothing but bash 3.2 or later: source it from ~/.bashrc, or
# install it as "vpnctl" into a folder of bash-completion.

_vpnctl()
{
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' index
    COMPREPLY=()

    case $previous in
        --config | --server | --ca | --cert | --key)
            return ;; # files, which are the default
        --endpoint)
            # shellcheck disable=SC2207  # numbers need no care
            COMPREPLY=($(compgen -W "$(_vpnctl_endpoints)" -- "$word"))
            return ;;
        --host | --port | --timeout)
            return ;;
    esac

    for ((index = 1; index < COMP_CWORD; ++index)); do
        case ${COMP_WORDS[index]} in
            connect | disconnect | ping | watch | raw) command=${COMP_WORDS[index]} ;;
        esac
    done

    local words
    case $command in
        connect) words='--config --server --host --port --ca --cert --key --udp --tcp --detach --timeout --json --help' ;;
        disconnect) words='--endpoint --timeout --json --help' ;;
        ping) words='--json --help' ;;
        watch) words='--endpoint --json --help' ;;
        raw) words='--endpoint --server --timeout --json --help' ;;
        *) words='connect disconnect ping watch raw --json --help --version' ;;
    esac
    # shellcheck disable=SC2207  # none of the words holds a blank
    COMPREPLY=($(compgen -W "$words" -- "$word"))
}

_vpnctl_endpoints()
{
    local socket
    for socket in /tmp/local:TalvexFreeVpnIpcInterface_*; do
        [[ -S $socket ]] && printf '%s\n' "${socket##*_}"
    done
}

complete -o default -F _vpnctl vpnctl
