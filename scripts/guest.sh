# The machines of tests/system and what runs on them; source it after arm64.sh.
# shellcheck shell=bash disable=SC2034,SC2154,SC2317

sources=$root/tests/system
work=$root/build/system
built=$root/build/arm64
PATH=$PATH:/usr/sbin:/sbin # depmod and modprobe, for an ordinary user

# use_boot BOOT: sets what tests/system/boots/BOOT.sh says of the machine, which may use the variables of this
# file. Call it in a subshell.
use_boot() {
    boot=$1
    folder=$work/$boot
    qemu=()
    append=
    modules=()
    programs=()
    targets=()
    files=()
    limit=300
    prepare() { :; }
    finish() { :; }
    mkdir -p "$folder"
    # shellcheck source=/dev/null
    . "$sources/boots/$boot.sh"
}

# lock WHAT [--shared] DESCRIPTOR: locks the open file, and says what it waits for where another run has it.
lock() {
    flock --nonblock "${@:2}" || { echo "Waiting for another run $1 ..." && flock "${@:2}"; }
}

# prepare_guests BOOT...: sysroot, kernel, programs and modules, one run at a time.
prepare_guests() {
    local wanted
    mkdir -p "$work"
    exec 9>"$root/build/arm64.lock"
    lock "to prepare its guests" 9
    arm64_unpack "$arm64_sysroot" "${arm64_sysroot_packages[@]}"
    arm64_unpack_kernel
    wanted=$(
        for boot in "$@"; do
            (use_boot "$boot" && printf '%s\n' "${programs[@]}" "${targets[@]}")
        done | sort -u
    )
    # shellcheck disable=SC2086  # one word a target
    build arm64 $wanted
    build_modules
    exec 9>&-
}

kernel_release() {
    basename "$arm64_kernel"/lib/modules/*
}

# build_modules: those of simulator/modules, into build/system/modules.
build_modules() {
    local log=$work/modules.log headers names
    headers=$arm64_kernel/usr/src/linux-headers-$(kernel_release)
    # As packaged, it names the folder where the package is installed.
    echo "include $(echo "$arm64_kernel"/usr/src/linux-headers-*-common)/Makefile" >"$headers/Makefile"
    names=$(ls "$root/simulator/modules")
    # What was built of a file that is gone would stay.
    [ "$(cat "$work/modules/.names" 2>/dev/null)" = "$names" ] || rm -rf "$work/modules"
    mkdir -p "$work/modules"
    cp -p "$root"/simulator/modules/* "$work/modules"
    echo "$names" >"$work/modules/.names"
    if ! run_logged "$log" 's/^ *\(\(CC\|LD\|MODPOST\) .*\)/\1/p' \
        make -C "$headers" M="$work/modules" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- modules; then
        tail -n 40 "$log" >&2
        echo "The kernel modules can't be built; the whole log is $log" >&2
        return 1
    fi
}

# list_tests PROGRAM FILTER: the program's tests that pass the filter, one a line.
list_tests() {
    local libraries=$arm64_sysroot/lib/aarch64-linux-gnu
    qemu-aarch64-static "$libraries/ld-linux-aarch64.so.1" \
        --library-path "$libraries:$arm64_sysroot/usr/lib/aarch64-linux-gnu" \
        "$built/tests/system/$1" --gtest_list_tests --gtest_filter="$2" |
        awk '/^[^ ]+\.( |$)/ { suite = $1 } /^  / { print suite $1 }'
}

# list_boot FILTER: the tests of this boot, each after its program.
list_boot() {
    local program
    for program in "${programs[@]}"; do
        list_tests "$program" "$1" | sed "s/^/$program /"
    done
}

# needed_libraries TREE: what the programs and libraries in the tree name as needed.
needed_libraries() {
    find "$1" -path "$1/lib/modules" -prune -o -type f -print0 |
        xargs -0 aarch64-linux-gnu-readelf -d 2>/dev/null |
        sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u
}

# add_libraries TREE: the shared libraries that the programs in the tree need, and those that these need.
add_libraries() {
    local libraries=$1/lib/aarch64-linux-gnu library folder_of again=true
    mkdir -p "$libraries"
    cp -L "$arm64_sysroot/lib/ld-linux-aarch64.so.1" "$1/lib"
    while $again; do
        again=false
        for library in $(needed_libraries "$1"); do
            [ ! -e "$libraries/$library" ] || continue
            for folder_of in "$built"/{libkv,brevane} "$arm64_sysroot"/{,usr/}lib/aarch64-linux-gnu; do
                [ ! -e "$folder_of/$library" ] || break
            done
            cp -L "$folder_of/$library" "$libraries"
            again=true
        done
    done
}

# modules_of_kernel: the files of the kernel's modules that this boot wants itself or for ours.
modules_of_kernel() {
    local module name
    for module in "${modules[@]}"; do
        name=${module%% *}
        if [ -e "$work/modules/$name.ko" ]; then
            modinfo -F depends "$work/modules/$name.ko" | tr , '\n'
        else
            echo "$name"
        fi
    done | sort -u | while read -r name; do
        [ -z "$name" ] || [ -e "$work/modules/$name.ko" ] ||
            modprobe -d "$arm64_kernel" -S "$(kernel_release)" --show-depends "$name" ||
            { echo "$boot: there is no module $name" >&2 && return 1; }
    done | sed -n 's/^insmod \([^ ]*\).*/\1/p' | sort -u
}

# add_modules TREE: the kernel's that are wanted, and all of ours.
add_modules() {
    local files_of_kernel file folder_of
    folder_of=lib/modules/$(kernel_release)
    [ -e "$arm64_kernel/$folder_of/modules.dep" ] || depmod -b "$arm64_kernel" "$(kernel_release)"
    mkdir -p "$1/$folder_of/extra"
    cp "$arm64_kernel/$folder_of"/modules.{builtin*,order} "$1/$folder_of"
    cp "$work"/modules/*.ko "$1/$folder_of/extra"
    files_of_kernel=$(modules_of_kernel)
    for file in $files_of_kernel; do
        install -D -m 644 "$file" "$1${file#"$arm64_kernel"}"
    done
    depmod -b "$1" "$(kernel_release)"
    printf '%s\n' "${modules[@]}" >"$1/modules"
}

# pack_guest: the guest's files into $folder/initramfs.
pack_guest() {
    local tree=$folder/tree file program
    rm -rf "$tree"
    mkdir -p "$tree"/{bin,dev,etc,proc,root,run,sys,tmp}
    install "$sources/guest/init" "$tree"
    install "$arm64_kernel/bin/busybox" "$tree/bin"
    echo root:x:0:0:root:/root:/bin/sh >"$tree/etc/passwd"
    echo root:x:0: >"$tree/etc/group"
    for program in "${programs[@]}"; do
        install "$built/tests/system/$program" "$tree/bin"
    done
    for file in "${files[@]}"; do
        mkdir -p "$tree/$(dirname "${file##*:}")"
        cp -rL "${file%:*}" "$tree/${file##*:}"
    done
    cp "$folder/tests" "$tree"
    add_libraries "$tree"
    add_modules "$tree"
    (cd "$tree" && find . | cpio --create --format=newc --owner=0:0 --quiet | gzip -1) >"$folder/initramfs"
    rm -r "$tree"
}

# Seconds that a machine may be silent: the guest gives no test more than 60.
silence=90

# start_guest: boots the machine, whose process is $machine afterwards. It ends by itself: when the tests are
# done, where the kernel panics, and when its time is over. The console is the first serial port, whatever a
# boot adds.
start_guest() {
    local arguments
    arguments=("${qemu[@]}" -display none -no-reboot
        -kernel "$(echo "$arm64_kernel"/boot/vmlinuz-*)" -initrd "$folder/initramfs")
    [[ " ${qemu[*]} " == *" -smp "* ]] || arguments+=(-smp 4)
    [[ " ${qemu[*]} " == *" -m "* ]] || arguments+=(-m 1G)
    {
        printf '#!/bin/sh\nexec'
        printf ' %q' qemu-system-aarch64 -serial mon:stdio "${arguments[@]}" \
            -append "$append panic=-1 kv.shell"
        echo
    } >"$folder/boot"
    chmod +x "$folder/boot"
    : >"$folder/console.log"
    # Of the kernel's messages only its last words may come between the lines of the tests.
    timeout -k 10 "$limit" qemu-system-aarch64 -serial "file:$folder/console.log" -monitor none \
        "${arguments[@]}" -append "$append panic=-1 loglevel=1" >"$folder/qemu.log" 2>&1 </dev/null 8>&- &
    machine=$!
}

# end_silent_guest: waits until the machine has ended, and tells timeout that its time is over where it hangs.
end_silent_guest() {
    while sleep 1 && kill -0 "$machine" 2>/dev/null; do
        if [ $(($(date +%s) - $(stat -c %Y "$folder/console.log"))) -ge "$silence" ]; then
            kill -ALRM "$machine" 2>/dev/null || true # it may have ended by now
            return
        fi
    done
}
