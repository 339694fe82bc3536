# The target with the boards of the simulated machine ember, and the example model on them. QEMU's machine has
# no PCI: kv_pci_host stands for the host, system_board for what the boards do.
# shellcheck shell=bash disable=SC2034

. "$sources/device_tree.sh"

qemu=(-M xlnx-zcu102 -audiodev none,id=none -dtb "$folder/zcu102.dtb")
# The machine's time goes by what it has executed, however fast it is emulated: 2 ns for an instruction of any
# of its processors. So it keeps up with its boards, of which one interrupts every millisecond.
qemu+=(-icount shift=1,sleep=off)
# The memory above is the boards'.
append="console=ttyPS0 mem=960M"
modules=(
    uio_kelvaro
    kv_udmabuf
    "kv_identity serial=40127 temperature=45123"
    kv_pci_ethernet
    "kv_pci_host table=ember.pci memory=0x3c000000"
)
programs=(system_demo)
targets=(pci_tables system_board control_loop control_loop_uuid)
files=(
    "$built/tests/system/board/ember.pci:/lib/firmware/ember.pci"
    "$built/tests/system/board/system_board:/bin/system_board"
    "$built/examples/control_loop:/opt/control_loop"
    "$root/simulator/machines/ember.yaml:/etc/ember.yaml"
)

prepare() {
    cp "$arm64_kernel"/usr/lib/linux-image-*/xilinx/zynqmp-zcu102-rev1.0.dtb "$folder/zcu102.dtb"
    use_fixed_clock "$folder/zcu102.dtb" 100000000 serial@ff000000
}
