# What this host permits, found out before anything is downloaded or built; source it after common.sh.
# shellcheck shell=bash disable=SC2154

in_container='In a container: --cap-add SYS_ADMIN --device /dev/fuse --security-opt seccomp=unconfined --security-opt apparmor=unconfined'

# in_chroot: whether the root folder is that of a chroot, which the kernel refuses user namespaces.
in_chroot() {
    ! awk '$5 == "/" { found = 1 } END { exit !found }' /proc/self/mountinfo ||
        { [ "$(id -u)" -eq 0 ] && [ ! /proc/1/root/. -ef / ] && [ -e /proc/1/root/. ]; }
}

# is_zero NUMBER_FILE
is_zero() {
    [ "$(cat "/proc/sys/$1" 2>/dev/null)" = 0 ]
}

# mount_remedy: why namespaces with mounts of their own are refused, and what to do.
mount_remedy() {
    local or_root=
    [ "$(id -u)" -eq 0 ] || or_root=', or run this as root'
    if in_chroot; then
        echo "This is a chroot, where the kernel refuses them. Enter the system with systemd-nspawn, or in a container."
    elif is_zero user/max_mnt_namespaces; then
        echo 'None are allowed here. As root: sysctl user.max_mnt_namespaces=10000'
    elif [ "$(id -u)" -eq 0 ]; then
        echo "A policy forbids them, or CAP_SYS_ADMIN is missing. $in_container"
    elif is_zero kernel/unprivileged_userns_clone; then
        echo "Only root may have them here. As root: sysctl kernel.unprivileged_userns_clone=1$or_root"
    elif is_zero user/max_user_namespaces; then
        echo "None are allowed here. As root: sysctl user.max_user_namespaces=10000$or_root"
    elif [ -e /proc/sys/kernel/apparmor_restrict_unprivileged_userns ] &&
        ! is_zero kernel/apparmor_restrict_unprivileged_userns; then
        echo "AppArmor restricts them. As root: sysctl kernel.apparmor_restrict_unprivileged_userns=0$or_root"
    else
        echo "A policy or a chroot forbids them. $in_container"
    fi
}

# what_hinders_machine: what is in the way of the simulated machine, in two lines with the remedy; otherwise nothing.
what_hinders_machine() {
    local try=(mount -t tmpfs none /mnt) error
    [ -e /proc/self/mountinfo ] || { echo "/proc is not mounted.
Mount it: mount -t proc proc /proc" && return; }
    if ! { [ "$(id -u)" -eq 0 ] && unshare --mount "${try[@]}" 2>/dev/null; } &&
        ! error=$(unshare --user --map-root-user --mount "${try[@]}" 2>&1); then
        echo "The simulated machine needs namespaces with mounts of their own: $(tail -n 1 <<<"$error")
$(mount_remedy)"
    elif [ ! -e /dev/fuse ]; then
        echo "The simulated machine needs FUSE, and there is no /dev/fuse.
As root: modprobe fuse. In a container: --device /dev/fuse"
    elif ! error=$(LC_ALL=C bash -c ': <>/dev/fuse' 2>&1); then
        echo "The simulated machine needs FUSE, and $(id -un) can't open /dev/fuse: ${error##*: }
As root: chmod 0666 /dev/fuse. In a container: --device /dev/fuse"
    fi
}

# need_machine: fails where this host can't run the simulated machine.
need_machine() {
    local reason
    reason=$(what_hinders_machine)
    [ -z "$reason" ] || fail "$reason"
}

# need_root_mounts WHAT: fails where root can't mount; WHAT needs that. Sets as_root.
need_root_mounts() {
    local error
    use_root "$1 needs mounts of its own"
    error=$("${as_root[@]}" unshare --mount mount -t tmpfs none /mnt 2>&1) ||
        fail "$1 needs mounts of its own: $(tail -n 1 <<<"$error")
$(mount_remedy)"
}
