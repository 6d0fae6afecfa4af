#!/bin/zsh -f
# Types a text and a tab into an interactive zsh, and prints what stands in the line then.
#
# Usage: complete.zsh FOLDER TEXT      (FOLDER has the completions)

zmodload zsh/zpty || exit

# Without files of the user; what zsh writes between the marks is the line.
zpty shell "TERM=dumb zsh -f -i"
zpty -w shell "fpath=(${(q)1} \$fpath) PS1='rea''dy>'; autoload -Uz compinit; compinit -D -u"
zpty -w shell 'report() { zle -I; print -r -- "[[$BUFFER]]" }; zle -N report; bindkey "^Xr" report'
zpty -w shell 'unsetopt beep; zstyle ":completion:*" list-prompt ""; print set'" up"
zpty -r shell output '*set up*ready>*'
zpty -n -w shell "$2"$'\t\x18r'
zpty -r shell output '*\[\[*\]\]*'
zpty -d shell
output=${output##*\[\[}
print -r -- "${output%%\]\]*}"
