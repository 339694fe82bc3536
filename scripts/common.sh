# Shared by the scripts of this folder; source it.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# build PRESET [TARGET...]: configures and builds quietly; shows the log where something fails.
build() {
    local preset=$1 log
    shift
    log=$root/build/$preset.log
    mkdir -p "$root/build"
    echo "Building ($preset) ..."
    if ! { cmake -S "$root" --preset "$preset" && cmake --build "$root/build/$preset" ${*:+--target "$@"}; } \
        >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        echo "The build failed; its whole log is $log" >&2
        return 1
    fi
}
