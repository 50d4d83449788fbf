# bash completion for kovractl: the tool itself tells which words may follow.
_kovractl() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local words
    words=$("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD-1}" 2>/dev/null)
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
}
complete -F _kovractl kovractl
