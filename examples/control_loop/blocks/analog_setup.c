#include "analog_setup.h"

#include <stdlib.h>

#include <kv/registry.h>

#define MODULE_NAME "Analog Setup"
#define MAX_VARIANTS 4

enum { REGISTER_BAR = 0 };

/* One identity goes to the plain look-up, several to the one that searches all variants together. */
static int findBoard(const AnalogSetupParameters* parameters, kv_PCIDevice* pci) {
    if (parameters->nDeviceIds == 1) {
        return kv_findPciDevice(pci, MODULE_NAME, ANALOG_VENDOR, parameters->deviceIds[0],
                                KV_PCI_ANY_SUBSYSTEM, KV_PCI_ANY_SUBSYSTEM, parameters->position,
                                parameters->bus, parameters->slot);
    }
    uint16_t vendorIds[MAX_VARIANTS];
    uint16_t deviceIds[MAX_VARIANTS];
    uint16_t anySubsystem[MAX_VARIANTS];
    const size_t nVariants = parameters->nDeviceIds < MAX_VARIANTS ? parameters->nDeviceIds : MAX_VARIANTS;
    for (size_t variant = 0; variant < nVariants; ++variant) {
        vendorIds[variant] = ANALOG_VENDOR;
        deviceIds[variant] = parameters->deviceIds[variant];
        anySubsystem[variant] = KV_PCI_ANY_SUBSYSTEM;
    }
    return kv_findPciDeviceMultiIDs(pci, MODULE_NAME, nVariants, vendorIds, deviceIds, anySubsystem,
                                    anySubsystem, parameters->position, parameters->bus, parameters->slot);
}

/* The identity register repeats the device id; a board that answers otherwise is broken or badly seated. */
static int checkBoard(const AnalogBoard* board, KvError* error) {
    const uint32_t identity = analogBoard_read(board, ANALOG_IDENTITY);
    if (identity >> 16 != board->pci.DeviceId) {
        kvError_setMsg(error, "board answers with identity 0x%08x", identity);
        return -1;
    }
    const uint32_t pattern = 0x5AA51234;
    analogBoard_write(board, ANALOG_SCRATCH, pattern);
    if (analogBoard_read(board, ANALOG_SCRATCH) != pattern) {
        kvError_setMsg(error, "board does not keep its scratch register");
        return -1;
    }
    if ((analogBoard_read(board, ANALOG_STATUS) & ANALOG_STATUS_READY) == 0) {
        kvError_setMsg(error, "converters are not ready");
        return -1;
    }
    return 0;
}

static int openBoard(const AnalogSetupParameters* parameters, AnalogBoard* board, KvError* error) {
    if (findBoard(parameters, &board->pci) != 0) {
        kvError_extractMsg(error, pKvErrorStr);
        return -1;
    }
    board->registers = kv_mapMemory(&board->pci, REGISTER_BAR);
    if (board->registers == NULL) {
        kvError_setMsg(error, "cannot map BAR %d of the board at bus %u, slot %u", REGISTER_BAR,
                       board->pci.bus, board->pci.slot);
        return -1;
    }
    return checkBoard(board, error);
}

int analogSetup_start(const AnalogSetupParameters* parameters, KvError* error) {
    const uint32_t moduleId = (uint32_t)parameters->moduleId;
    kvError_setPreamble(error, MODULE_NAME, parameters->blockName, parameters->moduleId);

    kv_mod_info* module = kv_module_register(ANALOG_MODULE_TYPE, moduleId);
    if (module == NULL) {
        kvError_setMsg(error, "%s", pKvErrorStr);
        return -1;
    }
    AnalogBoard* board = kv_module_alloc_custom_data(module, sizeof *board);
    if (board == NULL) {
        kvError_setMsg(error, "out of memory");
        kv_module_unregister(ANALOG_MODULE_TYPE, moduleId);
        return -1;
    }
    *board = (AnalogBoard){0};
    if (openBoard(parameters, board, error) != 0) {
        free(board);
        kv_module_unregister(ANALOG_MODULE_TYPE, moduleId);
        return -1;
    }
    module->pci_bus = (int32_t)board->pci.bus;
    module->pci_slot = (int32_t)board->pci.slot;
    analogBoard_write(board, ANALOG_CONTROL, ANALOG_CONTROL_DRIVE_OUTPUTS);
    return 0;
}

void analogSetup_terminate(const AnalogSetupParameters* parameters) {
    const uint32_t moduleId = (uint32_t)parameters->moduleId;
    AnalogBoard* board = kv_module_get_custom_data(ANALOG_MODULE_TYPE, moduleId);
    if (board == NULL) {
        return; /* start failed */
    }
    for (unsigned channel = 0; channel < ANALOG_CHANNELS; ++channel) {
        analogBoard_write(board, ANALOG_OUTPUT_0 + 4 * channel, 0);
    }
    analogBoard_write(board, ANALOG_CONTROL, 0);
    kv_module_unregister(ANALOG_MODULE_TYPE, moduleId);
    free(board); /* custom data is the driver's own */
}
