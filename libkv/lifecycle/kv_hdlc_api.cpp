#include <cstddef>
#include <tuple>
#include <type_traits>

#include <kv/hdlc.h>
#include <kv/lifecycle.h>
#include <kv/process.h>
#include <kv/threads.h>

namespace {

template <typename Function>
struct Signature;

template <typename R, typename... P>
struct Signature<R(P...)> {
    using Result = R;
    template <std::size_t index>
    using Parameter = std::tuple_element_t<index, std::tuple<P...>>;
};

}  // namespace

#define PARAMETERS_0(f)
#define PARAMETERS_1(f) Signature<decltype(f)>::Parameter<0> a
#define PARAMETERS_2(f) PARAMETERS_1(f), Signature<decltype(f)>::Parameter<1> b
#define PARAMETERS_3(f) PARAMETERS_2(f), Signature<decltype(f)>::Parameter<2> c
#define ARGUMENTS_0
#define ARGUMENTS_1 a
#define ARGUMENTS_2 a, b
#define ARGUMENTS_3 a, b, c

/** Defines an entry point as nothing but a jump to the current function. */
#define FORWARD(entry, current, parameterCount)                                        \
    Signature<decltype(current)>::Result entry(PARAMETERS_##parameterCount(current)) { \
        return current(ARGUMENTS_##parameterCount);                                    \
    }                                                                                  \
    static_assert(std::is_same_v<decltype(entry), decltype(current)>, "models rely on " #entry " as it was")

extern "C" {

// Entry point, current function, number of its parameters. A new release adds its entries at the end.
FORWARD(kv_hdlc_inpDW_v19b, kv_inpDW, 1);
FORWARD(kv_hdlc_outpDW_v19b, kv_outpDW, 2);
FORWARD(kv_hdlc_module_register_v19b, kv_module_register, 2);
FORWARD(kv_hdlc_module_unregister_v19b, kv_module_unregister, 2);
FORWARD(kv_hdlc_module_get_v19b, kv_module_get, 3);
FORWARD(kv_hdlc_isModelInit_v19b, kv_isModelInit, 0);
FORWARD(kv_hdlc_allocPhysicalMemory_v19b, kv_allocPhysicalMemory_uncached, 1);
FORWARD(kv_hdlc_setAbilities_v19b, kv_setAbilities, 0);
FORWARD(kv_hdlc_freePhysicalMemory_v19b, kv_freePhysicalMemory, 1);
FORWARD(kv_hdlc_showPciDevice_v19b, kv_showPciDevice, 1);
FORWARD(kv_hdlc_mapMemory_v19b, kv_mapMemory, 2);
FORWARD(kv_hdlc_wait_s_v19b, kv_wait_s, 1);
FORWARD(kv_hdlc_getElapsedTime_v19b, kv_getElapsedTime, 0);

FORWARD(kv_hdlc_getModelBaseDir_v21a, kv_getModelBaseDir, 2);
FORWARD(kv_hdlc_spawnExecutable_v21b, kv_spawnExecutable, 3);
FORWARD(kv_hdlc_initModelRun_v21b, kv_initModelRun, 0);

FORWARD(kvPCI_backupPCIConfig_v22a, kvPCI_backupPCIConfig, 2);
FORWARD(kvPCI_restorePCIConfig_v22a, kvPCI_restorePCIConfig, 2);
FORWARD(kvPCI_printPCIConfig_v22a, kvPCI_printPCIConfig, 1);
FORWARD(kv_hdlc_allocPhysicalMemory_v2_v22b, kv_allocPhysicalMemory_v2, 2);

FORWARD(kv_hdlc_block_register_v24a, kv_block_register, 3);
FORWARD(kv_hdlc_block_unregister_v24a, kv_block_unregister, 3);
FORWARD(kv_hdlc_block_get_v24a, kv_block_get, 3);
FORWARD(kv_hdlc_module_get_single_v24a, kv_module_get_single, 2);

FORWARD(kv_hdlc_getPhysicalBufferAddr_v25a, kv_getPhysicalBufferAddr, 1);
FORWARD(kv_hdlc_findAxiDevice_v25a, kv_findAxiDevice, 2);
FORWARD(kv_hdlc_mapAxiBar_v25a, kv_mapAxiBar, 2);
FORWARD(kv_hdlc_loadOnChipBitstream_v25a, kv_loadOnChipBitstream, 1);

FORWARD(kv_pci_bindDriver_v26a, kv_pci_bindDriver, 2);
FORWARD(kv_pci_unbindDriver_v26a, kv_pci_unbindDriver, 1);
FORWARD(kv_hdlc_add_start_callback_v26a, kv_add_start_callback, 3);
FORWARD(kv_hdlc_isFirstModelLoad_v26a, kv_isFirstModelLoad, 0);

}  // extern "C"

// One has more parameters than the table takes, one another result than the function behind it.

static_assert(std::is_same_v<decltype(kv_hdlc_findPciDevice_v19b), decltype(kv_findPciDevice)>);
int kv_hdlc_findPciDevice_v19b(kv_PCIDevice* pPciInfo, const char* pDevNameStr, uint16_t vendorId,
                               uint16_t deviceId, uint16_t subVendorId, uint16_t subDeviceId, int ModuleId,
                               int Bus, int Slot) {
    return kv_findPciDevice(pPciInfo, pDevNameStr, vendorId, deviceId, subVendorId, subDeviceId, ModuleId,
                            Bus, Slot);
}

void kv_hdlc_terminateModelRun_v22a(void) {
    (void)kv_tagModelRun();  // generated code has no use for the result
}
