#compdef kvctl kvsim
# zsh completion for kvctl(1) and kvsim(1): the commands and options that their help shows, machines, and behind a
# machine whatever the command that runs on it takes.

local program=$words[1] command=$words[2]

# Prints the options of the command, each with the name of its value where it takes one.
_kv_options() {
    $program "$@" --help 2>/dev/null | sed -n 's/^  \(-[a-z],\)\?\(--[a-z-]*\) \?\([A-Z]*\).*/\2 \3/p'
}

_kv_machines() {
    local -a machines=(${(f)"$($program list 2>/dev/null | sed -n 's/^\([^ ]\+\) .*/\1/p')"})
    compadd -a machines
    _files -g '*.yaml'
}

# Names and processes of machines that are running.
_kv_running() {
    local -a running=(${(fu)"$($program ps 2>/dev/null | sed -n 's/^\([0-9]\+\) \+\([^ ]\+\) .*/\1\n\2/p')"})
    compadd -a running
}

# Completes "run" and "enter": options, a machine by the function given, then another command with arguments of its own.
_kv_with_command() {
    local -A takes=(${=${(f)"$(_kv_options $command | sed 's/ $/ -/')"}})
    local at=3
    while ((at < CURRENT)) && [[ $words[at] == -* ]]; do
        [[ $words[at] != *=* && ${takes[$words[at]]:--} != - ]] && ((at += 1))
        ((at += 1))
    done
    if ((at > CURRENT)); then
        _files
    elif ((at == CURRENT)) && [[ $words[at] == -* ]]; then
        compadd -k takes
    elif ((at == CURRENT)); then
        $1
    else
        [[ ${words[at+1]} == -- ]] && ((at += 1, at < CURRENT))
        shift at words
        ((CURRENT -= at))
        _normal
    fi
}

if ((CURRENT == 2)); then
    local -a commands=(${(f)"$($program --help 2>/dev/null | sed -n '/^Subcommands:/,$ s/^  \([a-z]\+\) .*/\1/p')"})
    compadd -a commands
    compadd -- ${(f)"$(_kv_options | sed 's/ .*//')"}
elif [[ $program == *kvsim && $command == run ]]; then
    _kv_with_command _kv_machines
elif [[ $program == *kvsim && $command == enter ]]; then
    _kv_with_command _kv_running
elif [[ $program == *kvsim && $command == check && $words[CURRENT] != -* ]]; then
    _kv_machines
else
    compadd -- ${(f)"$(_kv_options $command | sed 's/ .*//')"}
fi
