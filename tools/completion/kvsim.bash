# bash completion for kvsim(1): the commands and options that its help shows, machines, and behind a machine whatever
# the command that runs on it takes.

_kvsim_files() {
    compopt -o filenames
    mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen "$@")
}

_kvsim_options() {
    local options
    options=$("$1" "$2" --help 2>/dev/null | sed -n 's/^  \(-[a-z],\)\?\(--[a-z-]\+\).*/\2/p')
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$3")
}

# Names, and descriptions with the folders that lead to them.
_kvsim_machines() {
    local machines
    machines=$("$1" list 2>/dev/null | sed -n 's/^\([^ ]\+\) .*/\1/p')
    mapfile -t COMPREPLY < <(compgen -W "$machines" -- "$2")
    _kvsim_files -f -X '!*.yaml' -- "$2"
    _kvsim_files -d -- "$2"
}

# Names and processes of machines that are running.
_kvsim_running() {
    local running
    running=$("$1" ps 2>/dev/null | sed -n 's/^\([0-9]\+\) \+\([^ ]\+\) .*/\1 \2/p')
    mapfile -t COMPREPLY < <(compgen -W "$running" -- "$2" | sort -u)
}

# What bash-completion knows about the command that stands at a position, or commands and files.
_kvsim_command() {
    local offset
    for offset in _comp_command_offset _command_offset; do
        if declare -F "$offset" >/dev/null; then
            "$offset" "$1"
            return
        fi
    done
    if ((COMP_CWORD == $1)); then
        _kvsim_files -c -- "$2"
    else
        _kvsim_files -f -- "$2"
    fi
}

# Of "run" and "enter": options, a machine that the given function completes, and a command.
_kvsim_with_command() {
    local program=$1 command=$2 machines=$3 cur=$4 at=2
    while ((at < COMP_CWORD)); do
        case ${COMP_WORDS[at]} in
            --state | --keep)
                ((at += 2))
                [[ ${COMP_WORDS[at - 1]} == = ]] && ((at += 1))  # bash cuts at "="
                ;;
            -*) ((at += 1)) ;;
            *) break ;;
        esac
    done
    if ((at > COMP_CWORD)); then
        _kvsim_files -d -- "${cur#=}"
    elif ((at == COMP_CWORD)) && [[ $cur == -* ]]; then
        _kvsim_options "$program" "$command" "$cur"
    elif ((at == COMP_CWORD)); then
        "$machines" "$program" "$cur"
    else
        ((at += 1))
        ((at < COMP_CWORD)) && [[ ${COMP_WORDS[at]} == -- ]] && ((at += 1))
        _kvsim_command "$at" "$cur"
    fi
}

_kvsim() {
    local program=$1 cur=${COMP_WORDS[COMP_CWORD]} command='' commands
    ((COMP_CWORD > 1)) && command=${COMP_WORDS[1]}
    COMPREPLY=()
    case $command in
        run) _kvsim_with_command "$program" run _kvsim_machines "$cur" ;;
        enter) _kvsim_with_command "$program" enter _kvsim_running "$cur" ;;
        check | list | ps)
            if [[ $command == check && $cur != -* ]]; then
                _kvsim_machines "$program" "$cur"
            else
                _kvsim_options "$program" "$command" "$cur"
            fi
            ;;
        '')
            commands=$("$program" --help 2>/dev/null | sed -n '/^Subcommands:/,$ s/^  \([a-z]\+\) .*/\1/p')
            mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$cur")
            ;;
    esac
}
complete -F _kvsim kvsim
