#!/bin/zsh -f
# Types a text and a tab into an interactive zsh, and prints what stands in the line then.
#
# Usage: complete.zsh FOLDER TEXT      (FOLDER has the completions)

zmodload zsh/zpty || exit

# The shell is set up from a file: what were typed for it would come back as output.
settings=$(mktemp -d) || exit
trap 'rm -rf $settings' EXIT
cat >$settings/.zshrc <<END
PS1='ready:'
fpath=(${(q)1} \$fpath)
autoload -Uz compinit
compinit -D -u
unsetopt beep
report() { zle -I; print -r -- "=line=\$BUFFER=end=" }
zle -N report
bindkey '^Xr' report
END

zpty shell "TERM=dumb ZDOTDIR=${(q)settings} zsh -d -i"
zpty -r shell output '*ready:*'
zpty -n -w shell "$2"$'\t\x18r'
zpty -r shell output '*=line=*=end=*'
zpty -d shell
output=${output##*=line=}
print -r -- "${output%%=end=*}"
