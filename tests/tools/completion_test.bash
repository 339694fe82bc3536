#!/usr/bin/env bash
# Completes lines as an interactive bash does. Usage: completion_test.bash COMPLETION_FOLDER KVSIM KVCTL
set -uo pipefail

export LC_ALL=C  # for the order of what is offered
PATH=$(dirname "$2"):$(dirname "$3"):$PATH
. "$1/kvsim.bash"
. "$1/kvctl.bash"
compopt() { :; }  # bash refuses it where no line is edited
failed=0

# offers EXPECTED WORD...: what is offered for the last word.
offers() {
    local expected=$1 offered
    shift
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMP_LINE=$* COMP_POINT=${#COMP_LINE} COMPREPLY=()
    "_$1" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    offered=$(printf '%s\n' "${COMPREPLY[@]}" | sort | xargs)
    if [ "$offered" != "$expected" ]; then
        echo "$*: offers '$offered' where '$expected' was expected" >&2
        failed=1
    fi
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
mkdir folder
touch mine.yaml notes.txt folder/other.yaml

offers '--help --version check enter list ps run' kvsim ''
offers 'bare blaze' kvsim check b
offers 'bare blaze ember folder mine.yaml' kvsim run ''
offers 'folder/other.yaml' kvsim run folder/
offers '--help --keep --state' kvsim run -
offers 'folder' kvsim run --state f
offers 'folder' kvsim run --state = f
offers 'ember' kvsim run --keep folder --state = folder e
offers 'kvctl' kvsim run ember kvct
offers 'notes.txt' kvsim run ember -- cat n
offers 'kvctl' kvsim enter ember -- kvct

offers '--help --version eth info pci serial time' kvctl ''
offers '--json' kvctl pci --j
offers '--help --json --write' kvctl eth -

# With the helpers the command on the machine is completed as on the desk.
. /usr/share/bash-completion/bash_completion
offers 'kvctl' kvsim run ember -- kvct
offers 'serial' kvsim run --state folder ember kvctl s
offers '--write' kvsim run ember -- kvctl eth --w
exit $failed
