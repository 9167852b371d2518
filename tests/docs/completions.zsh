# What zsh would offer for command lines. Sourced by an interactive zsh -f with a terminal, with the
# environment: COMPLETIONS (directory of the functions), LINES_FILE (one command line each), OUT_FILE
# (line, tabulator, what is offered).
fpath=($COMPLETIONS $fpath)
autoload -Uz compinit && compinit -D -u
zstyle ':completion:*' verbose no
zstyle ':completion:*' menu no
setopt no_beep

function compadd {
    # Calls that only fill arrays are the completion functions' own.
    if [[ ${@[1,(i)(-|--)]} != *-(O|A|D)\ * ]]; then
        local -a offered
        builtin compadd -A offered "$@"
        print -rl -- "${(@)offered/#/$current_line	}" >>$OUT_FILE
    fi
    builtin compadd "$@"
}

function zle-line-init {
    local current_line
    for current_line in "${(@f)$(<$LINES_FILE)}"; do
        BUFFER=$current_line CURSOR=$#current_line
        zle list-choices
    done
    print end >>$OUT_FILE
    exit
}
zle -N zle-line-init
