# The target's own system on a chip: its two serial ports, its Ethernet interfaces and a GPIO chip. The first
# port is the console; something that answers hangs on the second one (tests/system/far_end). Behind
# kv_pci_host there are the Ethernet modules of the simulated machine blaze.
# shellcheck shell=bash disable=SC2034

. "$sources/device_tree.sh"

qemu=(-M xlnx-zcu102 -audiodev none,id=none)
append="console=ttyPS0"
modules=(kv_gpio macb kv_pci_ethernet "kv_pci_host table=blaze.pci" atemsys_pci)
programs=(system_serial system_network)
targets=(pci_tables)
files=("$built/tests/system/board/blaze.pci:/lib/firmware/blaze.pci")

# A socket without a file: the name of one may not be long, and this is never left behind.
port2=kv-system-test-$$
qemu+=(-dtb "$folder/zcu102.dtb")
qemu+=(-chardev "socket,id=port2,path=$port2,abstract=on,server=on,wait=off" -serial chardev:port2)

prepare() {
    cp "$arm64_kernel"/usr/lib/linux-image-*/xilinx/zynqmp-zcu102-rev1.0.dtb "$folder/zcu102.dtb"
    use_fixed_clock "$folder/zcu102.dtb" 100000000 serial@ff000000 serial@ff010000 \
        ethernet@ff0b0000 ethernet@ff0c0000 ethernet@ff0d0000 ethernet@ff0e0000

    "$sources/far_end" "$port2" 8>&- &
    far_end=$!
}

finish() {
    [ -z "${far_end:-}" ] || kill "$far_end" 2>/dev/null || true # it ends with the machine
}
