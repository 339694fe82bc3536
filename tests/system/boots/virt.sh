# QEMU's machine "virt": boards and bridges on PCI Express, with interrupts.
# shellcheck shell=bash disable=SC2034

qemu=(-M virt -cpu cortex-a53 -nodefaults)
append="console=ttyAMA0"
modules=(qemu_intx e100 e1000 e1000e uio_kelvaro "kv_udmabuf cached_size=0x400000")
programs=(system_time system_memory system_pci system_interrupt)

# The four-port module: a switch with a port at slots 2 to 5, and a controller behind each.
qemu+=(
    -device pcie-root-port,id=root1,chassis=1,addr=1.0
    -device x3130-upstream,id=upstream,bus=root1
)
for slot in 2 3 4 5; do
    qemu+=(
        -device "xio3130-downstream,id=port$slot,bus=upstream,chassis=1$slot,addr=$slot.0"
        -device "e1000e,bus=port$slot,romfile=,mac=52:54:00:00:01:0$slot"
    )
done

# A conventional bus with two controllers, a board, and two more whose registers are smaller than a page.
qemu+=(
    -device pcie-root-port,id=root2,chassis=2,addr=2.0
    -device pcie-pci-bridge,id=conventional,bus=root2
    -device i82557b,bus=conventional,addr=1.0,romfile=,mac=52:54:00:00:02:01
    -device i82557b,bus=conventional,addr=2.0,romfile=,mac=52:54:00:00:02:02
    -device edu,bus=conventional,addr=3.0
    -device rtl8139,bus=conventional,addr=5.0,romfile=,mac=52:54:00:00:02:05
    -device rtl8139,bus=conventional,addr=6.0,romfile=,mac=52:54:00:00:02:06
)

# Bridges to nothing, to a controller with ids of its own, and to a board that can be reset by itself.
qemu+=(
    -device pcie-root-port,id=root3,chassis=3,addr=3.0
    -device pcie-root-port,id=root4,chassis=4,addr=4.0
    -device e1000e,bus=root4,romfile=,mac=52:54:00:00:04:00,subsys_ven=0x1b5a,subsys=0x0a18
    -device pcie-root-port,id=root5,chassis=5,addr=5.0
    -device nvme,bus=root5,serial=1
)

# Boards on the first bus; slot 9 has two functions, and those in slots 7 and b share an interrupt line.
qemu+=(
    -device edu,addr=7.0
    -device edu,addr=b.0
    -device e1000,addr=9.0,multifunction=on,romfile=,mac=52:54:00:00:09:00
    -device e1000,addr=9.3,romfile=,mac=52:54:00:00:09:03
    -device ivshmem-plain,addr=a.0,memdev=shared
    -object memory-backend-ram,id=shared,size=1M,share=on
    -chardev null,id=line0 -chardev null,id=line1 -chardev null,id=line2 -chardev null,id=line3
    -device pci-serial-4x,addr=c.0,chardev1=line0,chardev2=line1,chardev3=line2,chardev4=line3
)
