# bash completion for kvctl(1): the commands and options that its help shows.

_kvctl() {
    local program=$1 cur=${COMP_WORDS[COMP_CWORD]} command='' choices
    ((COMP_CWORD > 1)) && command=${COMP_WORDS[1]}
    if [[ -z $command ]]; then
        choices="$("$program" --help 2>/dev/null | sed -n '/^Subcommands:/,$ s/^  \([a-z]\+\) .*/\1/p') --help --version"
    else
        choices=$("$program" "$command" --help 2>/dev/null | sed -n 's/^  \(-[a-z],\)\?\(--[a-z-]\+\).*/\2/p')
    fi
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$cur")
}
complete -F _kvctl kvctl
