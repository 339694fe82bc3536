# Shared by the scripts of this folder; source it.
# shellcheck shell=bash disable=SC2034

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
program=scripts/$(basename "$0")

# fail MESSAGE: ends the script.
fail() {
    printf '%s: %s\n' "$program" "$1" >&2
    exit "${2:-1}"
}

# The exit status of a script that could not fetch what it needs.
unfetched=75

# use_root WHY: sets as_root to what goes in front of a command that runs as root.
use_root() {
    as_root=()
    [ "$(id -u)" -ne 0 ] || return 0
    as_root=(sudo)
    command -v sudo >/dev/null ||
        fail "$1, which takes root, and sudo is not installed. Run $program as root once."
    sudo -n true 2>/dev/null || { [ -t 0 ] && sudo -v; } ||
        fail "$1, which takes root, and sudo refuses $(id -un). Run $program as root, or have $(id -un) added to the group sudo."
}

start_progress() {
    progress_began=$SECONDS
    progress_shown=$SECONDS
}

on_terminal() {
    [ -t 1 ] && [ "${TERM:-dumb}" != dumb ]
}

# show_progress TEXT: on a terminal in place of the text before, otherwise as a line every 10 s.
show_progress() {
    if on_terminal; then
        # Without automatic wrapping, so that a long text stays in its line.
        printf '\r\033[K\033[?7l    %s  %d s\033[?7h' "$1" $((SECONDS - progress_began))
    elif ((SECONDS - progress_shown >= 10)); then
        printf '    %s  %d s\n' "$1" $((SECONDS - progress_began))
        progress_shown=$SECONDS
    fi
}

# end_progress: makes room for a line that stays.
end_progress() {
    ! on_terminal || printf '\r\033[K'
    progress_shown=$SECONDS
}

# read_lines FUNCTION: calls the function with each line of the input, and shows $doing, which it sets, as progress.
read_lines() {
    local part line='' status
    start_progress
    while true; do
        status=0
        IFS= read -r -t 1 part || status=$?
        line+=$part
        if [ "$status" -eq 0 ]; then
            "$1" "$line"
            line=
        elif [ "$status" -le 128 ]; then # not a timeout: the end
            break
        fi
        show_progress "$doing"
    done
    end_progress
}

is_doing() {
    doing=$1
}

# run_logged LOG FILTER COMMAND...: keeps the command's output in the file, and shows as progress what the sed
# expression prints of it.
run_logged() {
    local log=$1 filter=$2
    shift 2
    "$@" 2>&1 </dev/null | tee "$log" | sed -u -n "$filter" | { doing=... && read_lines is_doing; }
}

# Filters of run_logged.
counts_of_apt='s/^[dp][lm]status:[^:]*:\([0-9]*\)[^:]*:\(.*\)/\1 % \2/p'
counts_of_ctest='s/^ *\([0-9]*\/[0-9]*\) Test.*/[\1]/p'
counts_of_make='s/^\(\[ *[0-9]*%\]\) .*/\1/p'
counts_of_ninja='s/^\(\[[0-9]*\/[0-9]*\]\) .*/\1/p'

configure_and_build() {
    cmake -S "$root" --preset "$preset" "${options[@]}" && cmake --build "$root/build/$preset" "${targets[@]}"
}

# build PRESET [-DOPTION=VALUE | TARGET]...: configures and builds; shows the log where something fails.
build() {
    local preset=$1 log=$root/build/$1.log options=() targets=() argument
    shift
    for argument; do
        case $argument in
            -D*) options+=("$argument") ;;
            *) targets+=(--target "$argument") ;;
        esac
    done
    mkdir -p "$root/build"
    echo "Building ($preset) ..."
    if ! run_logged "$log" "$counts_of_ninja" configure_and_build; then
        tail -n 60 "$log" >&2
        echo "The build failed; its whole log is $log" >&2
        return 1
    fi
}

# apt_get LOG ARGUMENT...: runs apt-get as $as_root and shows how far it is; its output goes to the file.
apt_get() {
    local log=$1
    shift
    run_logged "$log" "$counts_of_apt" \
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 apt-get -y -o APT::Status-Fd=1 -o DPkg::Lock::Timeout=120 "$@"
}

network_remedy='Check the network, the proxy (Acquire::http::Proxy of apt) and the sources in /etc/apt.'

# first_error LOG: why apt-get failed, in one line.
first_error() {
    local line
    line=$(grep -m 1 '^E:' "$1" || grep -m 1 '^W:' "$1" || tail -n 1 "$1")
    printf '%s\n' "${line#[EW]: }"
}
