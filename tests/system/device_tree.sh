# Changes to the device tree of an emulated machine; source it in a boot.
# shellcheck shell=bash

# use_fixed_clock DTB HERTZ DEVICE...: takes devices out of the care of the firmware, which QEMU's machine does not have.
# They get one clock in place of theirs, and lose all else that the firmware would switch.
use_fixed_clock() {
    local dtb=$1 phandle=$((0x7f00)) device clocks property
    fdtput -p -t s "$dtb" /fixed-clock compatible fixed-clock
    fdtput -t i "$dtb" /fixed-clock '#clock-cells' 0
    fdtput -t i "$dtb" /fixed-clock clock-frequency "$2"
    fdtput -t i "$dtb" /fixed-clock phandle "$phandle"
    shift 2
    for device in "${@/#//axi/}"; do
        clocks=$(fdtget "$dtb" "$device" clock-names | sed -E "s/[^ ]+/$phandle/g")
        # shellcheck disable=SC2086  # one word a clock
        fdtput -t i "$dtb" "$device" clocks $clocks
        for property in power-domains pinctrl-names pinctrl-0 resets reset-names iommus; do
            fdtput -d "$dtb" "$device" "$property" 2>/dev/null || true # not all of them have it
        done
        fdtput -t s "$dtb" "$device" status okay
    done
}
