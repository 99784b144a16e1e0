# What zsh offers at the end of a command line, one word on a line: a shell on a terminal of its
# own, where the Tab key is pressed. compadd, through which every match goes, notes them.
#   zsh -f offers.zsh SCRIPT 'greirige partition s'
zmodload zsh/zpty
directory=$(mktemp -d)
trap 'rm -rf $directory' EXIT
cp $1 $directory/_greirige
cat >$directory/.zshrc <<'END'
fpath=($ZDOTDIR $fpath)
autoload -Uz compinit && compinit -u -D
compadd() {
    local -a hits
    if (( ! ${@[(I)-[OAD]*]} )); then
        builtin compadd -A hits "$@"
        print -rl -- $hits >>$ZDOTDIR/found
    fi
    builtin compadd "$@"
}
finish() { print -r -- end >>$ZDOTDIR/found; zle kill-whole-line }
zle -N finish
bindkey '^I' complete-word
bindkey '^G' finish
setopt no_beep
PS1=ready
END

export ZDOTDIR=$directory
zpty shell zsh -o no_global_rcs -i
zpty -r shell output '*ready*' || exit 1
zpty -w -n shell "$2"$'\t'$'\a'
until grep -qsx end $directory/found; do zpty -r -t shell output; sleep 0.02; done
grep -vxe end -e '' $directory/found
zpty -d shell
