# bash completion for vpnctl, which knows itself what fits. Needs nothing but bash 3.2 or later: source
# it from ~/.bashrc, or install it as "vpnctl" into a folder of bash-completion.

_vpnctl()
{
    local word=${COMP_WORDS[COMP_CWORD]} offer
    COMPREPLY=()
    while IFS= read -r offer; do
        if [[ $offer == FILE ]]; then
            while IFS= read -r offer; do COMPREPLY+=("$offer"); done < <(compgen -f -- "$word")
        else
            COMPREPLY+=("${offer%%$'\t'*}")
        fi
    done < <("${COMP_WORDS[0]/#\~/$HOME}" complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}

complete -o filenames -F _vpnctl vpnctl
