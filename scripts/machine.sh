# The systems of scripts/fresh-machine, made and entered in mount and process namespaces of their own; source it after
# common.sh.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

downloads=$root/build/fresh-machine
release=bookworm

# The command in front of a function of this file and its arguments that runs it as the first process of namespaces of
# its own. All that it starts and mounts ends with it. It acts on signals that a caller in the background ignores.
in_namespaces=(
    unshare --mount --pid --uts --fork --kill-child --mount-proc
    env "--default-signal=HUP,INT,QUIT,TERM"
    bash -euo pipefail -c ". '$root/scripts/common.sh'; . '$root/scripts/machine.sh'; \"\$@\"" "$0"
)

# debian_mirror: where apt gets the release from.
debian_mirror() {
    apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' "Codename: $release" | sed -n 1p
}

# debian_sources: the files of apt's configuration that name sources of Debian.
debian_sources() {
    apt-get indextargets --format '$(SOURCESENTRY)' 'Created-By: Packages' 'Origin: Debian' | sed 's/:[0-9]*$//' | sort -u
}

# use_host_proxy: sets the variable by which debootstrap finds the proxy that apt uses for the mirror.
use_host_proxy() {
    local general='' found protocol=${mirror%%:*}
    eval "$(apt-config shell general "Acquire::${protocol}::Proxy")"
    found=$(/usr/lib/apt/apt-helper auto-detect-proxy "$mirror" 2>/dev/null |
        sed -n "s/^Using proxy '\(.*\)' for URL .*/\1/p")
    found=${found:-$general}
    [ -z "$found" ] || export "${protocol}_proxy=${found/#DIRECT*/}"
}

# use_host_login: makes the folder a home folder where debootstrap finds what apt authenticates itself with.
use_host_login() {
    export HOME=$folder
    (umask 077 && cat /etc/apt/auth.conf /etc/apt/auth.conf.d/*.conf 2>/dev/null |
        sed -E 's#machine +(https?://)?([^/ ]*)[^ ]*#machine \2#' >"$folder/.netrc") || true
}

# copy_apt_settings: gives the new system the sources, keys and rules for downloading of the host's apt.
copy_apt_settings() {
    local file rules
    rules=$(apt-config dump |
        grep -E '^Acquire::' | grep -vE '^Acquire::(IndexTargets|CompressionTypes|Changelogs)|Proxy-?Auto-?Detect')
    rm -f "$base/etc/apt/sources.list"
    for file in $(debian_sources) \
        /etc/apt/{auth.conf,auth.conf.d,keyrings,trusted.gpg,trusted.gpg.d} \
        /usr/share/keyrings /usr/local/share/ca-certificates $(sed -n 's/.*"\(\/.*\)";$/\1/p' <<<"$rules"); do
        [ ! -e "$file" ] || cp -r --parents "$file" "$base"
    done
    {
        echo "$rules"
        # What sudo takes out of the environment.
        [ -z "${http_proxy:-}" ] || echo "Acquire::http::Proxy \"$http_proxy\";"
        [ -z "${https_proxy:-}" ] || echo "Acquire::https::Proxy \"$https_proxy\";"
    } >"$base/etc/apt/apt.conf.d/90host"
    chroot "$base" update-ca-certificates >"$log" 2>&1 || { cat "$log" >&2 && return 1; }
}

# make_base: a minimal Debian with git and sudo, and with an ordinary user, in $base.
make_base() {
    local mirror log=$folder/debootstrap.log
    mirror=$(debian_mirror)
    echo "Making a fresh system with debootstrap ..."
    use_host_proxy
    use_host_login
    if ! run_logged "$log" 's/^I: //p' debootstrap --variant=minbase --include=git,ca-certificates,sudo \
        --cache-dir="$downloads/archives" --force-check-gpg "$release" "$base" "$mirror"; then
        fail "debootstrap can't make a system: $(first_error "$log")
$network_remedy" "$unfetched"
    fi
    copy_apt_settings
    echo force-unsafe-io >"$base/etc/dpkg/dpkg.cfg.d/fast"
    cp -L /etc/resolv.conf "$base/etc/resolv.conf"
    { cat /etc/hosts && echo "127.0.1.1 fresh-machine"; } >"$base/etc/hosts"
    echo fresh-machine >"$base/etc/hostname"
    chroot "$base" useradd --create-home --shell /bin/bash user
    echo "user ALL=(ALL) NOPASSWD: ALL" >"$base/etc/sudoers.d/user"
}

# mount_devices: /dev as a new Debian has it, in the folder that is the root to be.
mount_devices() {
    local node
    mount -t tmpfs -o mode=755,nosuid tmpfs dev
    for node in "null 1 3" "zero 1 5" "full 1 7" "random 1 8" "urandom 1 9" "tty 5 0" "fuse 10 229"; do
        # shellcheck disable=SC2086  # name, major and minor number
        mknod -m 666 dev/${node/ / c }
    done
    mkdir dev/pts dev/shm
    mount -t devpts -o newinstance,gid=5,mode=620,ptmxmode=666 devpts dev/pts
    mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs dev/shm
    ln -s pts/ptmx dev/ptmx
    ln -s /proc/self/fd dev/fd
    ln -s fd/0 dev/stdin
    ln -s fd/1 dev/stdout
    ln -s fd/2 dev/stderr
}

# enter_system SYSTEM: makes the folder the root of this mount namespace, and takes the host's files away.
enter_system() {
    mount --bind "$1" "$1"
    cd "$1"
    mount -t proc proc proc
    mount -t sysfs sysfs sys
    mount -t tmpfs -o mode=755 tmpfs run
    mount_devices
    mount --bind "$downloads/archives" var/cache/apt/archives
    hostname fresh-machine
    pivot_root . mnt
    cd /
    umount --lazy /mnt
}

# run_in_system SYSTEM USER COMMAND...: enters the system, and runs the command as the user in a new clone.
run_in_system() {
    local system=$1 user=$2 home name settings=()
    shift 2
    enter_system "$system"
    home=$(getent passwd "$user" | cut -d : -f 6)
    chown -R "$user:" /srv/kv.git
    for name in TERM CI http_proxy https_proxy no_proxy; do
        [ -z "${!name:-}" ] || settings+=("$name=${!name}")
    done
    # Not by exec: the first process of the namespace waits for those that lost their parents.
    runuser -u "$user" -- env -i HOME="$home" USER="$user" LOGNAME="$user" SHELL=/bin/bash \
        PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "${settings[@]}" \
        bash -euc 'cd && git clone --quiet file:///srv/kv.git kv && cd kv && exec "$@"' bash "$@"
}

# run_on_copy USER COMMAND...: runs the command on a copy of the fresh system, and adds its verdict to $verdicts.
run_on_copy() {
    local began=$SECONDS status=0 verdict=ok what
    what="${*:2} as $([ "$1" = root ] && echo root || echo 'an ordinary user')"
    printf '\n== %s\n' "$what"
    cp -a --reflink=auto "$base" "$folder/system" && cp -a "$folder/kv.git" "$folder/system/srv" &&
        "${in_namespaces[@]}" run_in_system "$folder/system" "$@" || status=$?
    rm -rf --one-file-system "$folder/system"
    [ "$status" -eq 0 ] || verdict="FAILED with status $status"
    verdicts+=("$(printf '%-40s %4d s  %s' "$what" $((SECONDS - began)) "$verdict")")
    return "$status"
}

# run_on_machines FOLDER USER [COMMAND...]: makes the fresh system in the folder and runs the command there, or all
# that a newcomer would run.
run_on_machines() {
    local folder=$1 base=$1/base user=$2 verdicts=() status=0
    shift 2
    trap 'exit 130' INT # without a word about what the signal has ended
    unset TMPDIR # there is no such folder in the new system
    mkdir -p "$downloads/archives/partial"
    make_base
    verdicts+=("$(printf '%-40s %4d s' "making the system" "$SECONDS")")
    if [ $# -gt 0 ]; then
        run_on_copy "$user" "$@" || status=$?
    else
        run_on_copy root scripts/demo || status=1
        run_on_copy user scripts/demo || status=1
        run_on_copy root scripts/test || status=1
    fi
    printf '\n'
    printf '%s\n' "${verdicts[@]}"
    return "$status"
}
