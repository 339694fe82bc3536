/* What the machine is and has: the target, its boards, its memory, its lines to others. */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <kv/hdlc.h>
#include <kv/memory.h>
#include <kv/network.h>
#include <kv/pci.h>
#include <kv/process.h>
#include <kv/serial.h>
#include <kv/soc.h>
#include <kv/target.h>

#include "calls.h"

enum { VENDOR = 0x1b5a, ANALOG = 0x0a18, ANY = KV_PCI_ANY_SUBSYSTEM, BUS = 9, SLOT = 0 };

void useTarget(void) {
    EXPECT(CALL(kv_getTargetType)() == Olive);
    EXPECT(strstr(CALL(kv_getTargetMarketingName)(), "Ember") != NULL);
    EXPECT(CALL(kv_getCpuTemperature)() == 45);
    EXPECT(CALL(kv_getSerialNumber)() == 40127);
    EXPECT(CALL(kv_getSerialNumberInternal)() < 0);
    EXPECT(CALL(kv_getSerialNumberSupplier)() < 0);

    char time[KV_TARGET_TIME_SIZE];
    EXPECT(CALL(kv_getTargetTime)(time) == 0 && time[strlen(time) - 1] == '\n');
    EXPECT(CALL(kv_getTargetTimeNum)() > 730000);
    EXPECT(CALL(kv_getSecondsSinceStart)() >= 0);
    DateTime_T point = {.year = 2024, .month = 6, .dom = 5, .hour = 14, .min = 7, .sec = 9};
    EXPECT(CALL(print_dt)(&point) == 0);
    DateStr_T text = {"Wed", "Jun", "05", "14:07:09", "", {'2', '0', '2', '4'}};
    EXPECT(CALL(print_ds)(&text) == 0);
}

static void freeNodes(kv_topo_node* nodes, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (nodes[i].headerType == 1) {
            kv_topo_bridge* const bridge = (kv_topo_bridge*)nodes[i].customData;
            freeNodes(bridge->children, bridge->nChildren);
            free(bridge);
        }
        free(nodes[i].interfaceType);
    }
    free(nodes);
}

static void useTopology(void) {
    kv_topo_node* nodes = NULL;
    EXPECT(CALL(kv_getPciTopologyAtBus)(&nodes, BUS) == 1 && nodes[0].DID == ANALOG);
    freeNodes(nodes, 1);
    const int32_t count = CALL(kv_getPciTopology)(&nodes);
    EXPECT(count > 0);
    CALL(kv_printPciTopology)(nodes, (uint32_t)count);
    freeNodes(nodes, (uint32_t)count);
}

static void findBoard(kv_PCIDevice* board) {
    uint16_t vendor = VENDOR;
    uint16_t device = ANALOG;
    uint16_t any = ANY;
    EXPECT(CALL(kvPCI_getDeviceByIdx)(VENDOR, ANALOG, ANY, ANY, 1, board) == 0);
    EXPECT(CALL(kvPCI_getDeviceAtSlot)(VENDOR, ANALOG, ANY, ANY, BUS, SLOT, board) == 0);
    EXPECT(CALL(kv_detectPciDevice)(board, "board", VENDOR, ANALOG, ANY, ANY, 1) == 0);
    EXPECT(CALL(kv_detectPciDeviceAtSlot)(board, "board", VENDOR, ANALOG, ANY, ANY, BUS, SLOT) == 0);
    EXPECT(CALL(kv_findPciDeviceMultiIDs)(board, "board", 1, &vendor, &device, &any, &any, 0, BUS, SLOT) ==
           0);
    EXPECT(CALL(kv_hdlc_findPciDevice_v19b)(board, "board", VENDOR, ANALOG, ANY, ANY, 1, BUS, SLOT) == 0);
    EXPECT(CALL(kv_findPciDevice)(board, "board", VENDOR, ANALOG, ANY, ANY, 1, BUS, SLOT) == 0);
    CALL(kv_showPciDevice)(board);
    CALL(kv_hdlc_showPciDevice_v19b)(board);
}

static void useBoard(kv_PCIDevice* board) {
    const uint32_t* const registers = CALL(kv_mapMemory)(board, 0);
    EXPECT(registers != NULL && registers[0] == 0x0A180001);
    EXPECT(CALL(kv_hdlc_mapMemory_v19b)(board, 0) != NULL);
    EXPECT(CALL(kv_mapIo)(board, 0) == NULL);

    uint32_t configuration[64];
    CALL(kvPCI_backupPCIConfig)(board, configuration);
    CALL(kvPCI_backupPCIConfig_v22a)(board, configuration);
    EXPECT(configuration[0] == board->BaseAddress_raw[0]);
    CALL(kvPCI_restorePCIConfig)(board, configuration);
    CALL(kvPCI_restorePCIConfig_v22a)(board, configuration);
    CALL(kvPCI_printPCIConfig)(board);
    CALL(kvPCI_printPCIConfig_v22a)(board);
    const int file = CALL(kv_pci_openPciConfig)(board, O_RDONLY);
    EXPECT(file >= 0 && close(file) == 0);
}

static void useDrivers(kv_PCIDevice* board) {
    EXPECT(CALL(kv_pci_unbindDriver)(board) == 0);
    EXPECT(CALL(kv_pci_bindDriver)(board, "uio_kelvaro") == 0);
    EXPECT(CALL(kv_pci_unbindDriver_v26a)(board) == 0);
    EXPECT(CALL(kv_pci_bindDriver_v26a)(board, "uio_kelvaro") == 0);
    EXPECT(CALL(kv_pci_probeDriver)(board) == 0);
    EXPECT(CALL(kv_uio_bindDeviceToUio)(board) >= 0);
}

static void useInterrupt(kv_PCIDevice* board) {
    kv_InterruptContext* context = NULL;
    EXPECT(CALL(kv_uio_createInterruptContext)(&context, board) == 0);
    EXPECT(CALL(kv_uio_interruptAttach)(context) == 0);
    (void)CALL(kv_uio_setIrqProps)(context);
    (void)CALL(kv_uio_resetIrqProps)(context);
    EXPECT(CALL(kv_uio_enableInterrupt)(context) == 0);
    EXPECT(CALL(kv_uio_interruptEnableFix)(context) == 0);
    close(context->uiofd);
    context->uiofd = -1;
    EXPECT(CALL(kv_uio_interruptWait)(context) != 0);
    CALL(kv_uio_interruptDetach)(context);
}

void useBoards(void) {
    useTopology();
    kv_PCIDevice board = {0};
    findBoard(&board);
    useBoard(&board);
    useDrivers(&board);
    useInterrupt(&board);

    kv_AxiDevice encoder;
    EXPECT(CALL(kv_findAxiDevice)(&encoder, "encoder") == 0);
    EXPECT(CALL(kv_hdlc_findAxiDevice_v25a)(&encoder, "encoder") == 0);
    EXPECT(CALL(kv_mapAxiBar)(&encoder, 0) != 0);
    EXPECT(CALL(kv_hdlc_mapAxiBar_v25a)(&encoder, 0) != 0);
    EXPECT(CALL(kv_setAxiIrqAffinity)("encoder", 1) == 0);
    EXPECT(CALL(kv_loadOnChipBitstream)("/no/such.bit") != 0);
    EXPECT(CALL(kv_hdlc_loadOnChipBitstream_v25a)("/no/such.bit") != 0);
}

static void usePersistentMemory(void) {
    void* const memory = CALL(kv_allocPersistentMemory)("counter", 8);
    EXPECT(memory != NULL && CALL(kv_getPersistentMemory)("counter") == memory);
    CALL(kv_freePersistentMemory)();
}

static void expectBuffer(void* buffer, uintptr_t* physical) {
    EXPECT(buffer != NULL && *physical != 0);
    CALL(kv_freePhysicalMemory)(buffer);
    *physical = 0;
}

void useMemory(void) {
    usePersistentMemory();
    uintptr_t physical = 0;
    expectBuffer(CALL(kv_allocPhysicalMemory_v2)(4096, &physical), &physical);
    expectBuffer(CALL(kv_allocPhysicalMemory_v2_uncached)(4096, &physical), &physical);
    expectBuffer(CALL(kv_hdlc_allocPhysicalMemory_v2_v22b)(4096, &physical), &physical);
    void* const buffer = kv_allocPhysicalMemory_v2(4096, &physical);
    CALL(kv_hdlc_freePhysicalMemory_v19b)(buffer);
    EXPECT(CALL(kv_allocPhysicalMemory_uncached)(4096) == NULL);
    EXPECT(CALL(kv_hdlc_allocPhysicalMemory_v19b)(4096) == NULL);
    kv_udmabuf_Handle* const handle = CALL(kv_udmabuf_allocBuffer)(4096);
    EXPECT(handle != NULL && CALL(kv_udmabuf_freeBuffer)(handle) == 0);
    EXPECT(CALL(kv_udmabuf_deleteAllBuffers)() == 0);

    /* The machine has no cached buffer. */
    EXPECT(CALL(kv_udmabuf_areCacheCoherentBuffersAvailable)() == 0);
    EXPECT(CALL(kv_allocPhysicalMemory_cached)(4096) == NULL);
    EXPECT(CALL(kv_allocPhysicalMemory_v2_cached)(4096, &physical) == NULL);
    EXPECT(CALL(kv_udmabuf_allocCachedBuffer)(4096, &physical) == NULL);
    EXPECT(CALL(kv_udmabuf_freeCachedBuffer)(NULL) != 0);
    CALL(kv_udmabuf_printCachedMemoryBuffers)();

    int local = 1;
    (void)CALL(kv_getPhysicalBufferAddr)(&local);
    (void)CALL(kv_hdlc_getPhysicalBufferAddr_v25a)(&local);
}

void useLines(void) {
    char node[64];
    kv_PCIDevice none = {0};
    EXPECT(CALL(kv_findSerialDeviceByPort)(0xFF000000, node, sizeof(node)) == 0);
    EXPECT(strcmp(node, "/dev/ttyPS0") == 0);
    EXPECT(CALL(kv_findSerialDeviceByPci)(&none, 0, node, sizeof(node)) != 0);
    EXPECT(CALL(kv_serial_port_open)(1, O_RDWR) >= 0);
    EXPECT(CALL(kv_serial_port_close)(1) == 0);
    EXPECT(CALL(kv_serial_device_open)(1) >= 0);
    EXPECT(CALL(kv_serial_device_config)(1, B115200, 4, None, 1, 0) == 0);
    EXPECT(CALL(kv_serial_device_set_mode)(1, 3) == 0);
    EXPECT(CALL(kv_serial_device_set_termination)(1, 1) == 0);
    EXPECT(CALL(kv_serial_device_flush)(1, 1) == 0);
    EXPECT(CALL(kv_serial_device_close)(1) == 0);

    unsigned char mac[KV_MAC_SIZE];
    EXPECT(CALL(kv_target_getHostLinkMac)(mac) != 0);
    EXPECT(CALL(kv_translateEthernetInterfaces)() == 0);
    (void)CALL(kv_configureEthercat)(99);
    (void)CALL(kv_teardownEthercat)(99);
}
