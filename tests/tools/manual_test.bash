#!/usr/bin/env bash
# A manual page renders without warnings, and shows the commands and options that the program's help shows: all, and no
# others. Usage: manual_test.bash PAGE PROGRAM
set -euo pipefail

page=$1
program=$2
name=$(basename "$program")

# section TITLE: a section of the rendered page.
section() {
    sed -n "/^$1\$/,/^[A-Z]/p" <<<"$text"
}

# same WHAT IN_HELP IN_PAGE
same() {
    if [ -z "$2" ] || [ "$2" != "$3" ]; then
        printf '%s: the help has the %s\n%s\nand the page\n%s\n' "$name" "$1" "$2" "$3" >&2
        exit 1
    fi
}

warnings=$(MANWIDTH=110 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
if [ -n "$warnings" ]; then
    printf '%s\n' "$warnings" >&2
    exit 1
fi
text=$(MANWIDTH=110 MAN_KEEP_FORMATTING='' man -E ascii -l "$page")

commands=$("$program" --help | sed -n '/^Subcommands:/,$ s/^  \([a-z]\+\) .*/\1/p' | sort)
same commands "$commands" "$(section SYNOPSIS | sed -n "s/^ *$name \([a-z]\+\).*/\1/p" | sort)"
same commands "$commands" "$(section COMMANDS | sed -n 's/^ \{7\}\([a-z]\+\).*/\1/p' | sort)"

options=$(for command in '' $commands; do
    "$program" $command --help | sed -n 's/^  \(-h,\)\?\(--[a-z-]\+\).*/\2/p'
done | sort -u)
same options "$options" "$(section OPTIONS | sed -n 's/^ \{7\}\(-h, \)\?\(--[a-z-]\+\).*/\2/p' | sort)"
