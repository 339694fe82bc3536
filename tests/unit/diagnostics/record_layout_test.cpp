#include <cstddef>

#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/pci.h>
#include <kv/registry.h>
#include <kv/soc.h>

namespace {

// Models that were compiled years ago read these records: a field that moves breaks them without a word.
TEST(RecordLayout, StaysWhatCompiledModelsRelyOn) {
    EXPECT_EQ(offsetof(KvError, outputMsg), 200U);
    EXPECT_EQ(offsetof(KvError, writeIndex), 400U);

    EXPECT_EQ(offsetof(kv_PCIDevice, hdl), 8U);
    EXPECT_EQ(offsetof(kv_PCIDevice, bus), 16U);
    EXPECT_EQ(offsetof(kv_PCIDevice, slot), 20U);
    EXPECT_EQ(offsetof(kv_PCIDevice, BaseAddress_raw), 24U);
    EXPECT_EQ(offsetof(kv_PCIDevice, BaseAddress), 72U);
    EXPECT_EQ(offsetof(kv_PCIDevice, Length), 96U);
    EXPECT_EQ(offsetof(kv_PCIDevice, VirtAddress), 120U);
    EXPECT_EQ(offsetof(kv_PCIDevice, VendorId), 168U);
    EXPECT_EQ(offsetof(kv_PCIDevice, DeviceId), 170U);
    EXPECT_EQ(offsetof(kv_PCIDevice, SubDeviceId), 172U);
    EXPECT_EQ(offsetof(kv_PCIDevice, SubVendorId), 174U);
    EXPECT_EQ(offsetof(kv_PCIDevice, pciIdx), 176U);

    EXPECT_EQ(offsetof(kv_topo_node, interfaceType), 32U);
    EXPECT_EQ(offsetof(kv_topo_node, MF), 40U);
    EXPECT_EQ(offsetof(kv_topo_node, headerType), 44U);
    EXPECT_EQ(offsetof(kv_topo_node, customData), 48U);
    EXPECT_EQ(offsetof(kv_topo_node, parent), 56U);
    EXPECT_EQ(sizeof(kv_topo_node), 64U);
    EXPECT_EQ(offsetof(kv_topo_bridge, nChildren), 12U);
    EXPECT_EQ(offsetof(kv_topo_bridge, children), 16U);

    EXPECT_EQ(offsetof(kv_mod_info, is_initiator), 8U);
    EXPECT_EQ(offsetof(kv_mod_info, pci_bus), 12U);
    EXPECT_EQ(offsetof(kv_mod_info, pci_slot), 16U);
    EXPECT_EQ(offsetof(kv_mod_info, custom_data), 24U);
    EXPECT_EQ(offsetof(kv_mod_info, block_registry), 32U);
    EXPECT_EQ(offsetof(kv_block_info, uid), 8U);
    EXPECT_EQ(offsetof(kv_block_info, custom_data), 16U);

    EXPECT_EQ(offsetof(kv_AxiDevice, uioDevPath), 4U);
    EXPECT_EQ(sizeof(kv_AxiDevice), 260U);
    EXPECT_EQ(offsetof(_kv_int_fix, target_register), 8U);
    EXPECT_EQ(offsetof(_kv_int_fix, int_mask), 16U);
    EXPECT_EQ(offsetof(_kv_int_fix, fix_type), 20U);
    EXPECT_EQ(offsetof(kv_InterruptContext, is_polling), 184U);
    EXPECT_EQ(offsetof(kv_InterruptContext, map), 192U);
    EXPECT_EQ(offsetof(kv_InterruptContext, uioIndex), 240U);
    EXPECT_EQ(offsetof(kv_InterruptContext, uiofd), 244U);
    EXPECT_EQ(offsetof(kv_InterruptContext, configfd), 248U);
    EXPECT_EQ(offsetof(kv_InterruptContext, command_high), 252U);
    EXPECT_EQ(offsetof(kv_InterruptContext, interruptChannel), 254U);
    EXPECT_EQ(offsetof(kv_InterruptContext, moduleId), 256U);
    EXPECT_EQ(offsetof(kv_InterruptContext, customData), 264U);
    EXPECT_EQ(offsetof(kv_InterruptContext, kv_int_fix), 272U);
    EXPECT_EQ(offsetof(kv_InterruptContext, start_func_finished_sem), 296U);
    EXPECT_EQ(offsetof(kv_InterruptContext, wait_func_ready_sem), 328U);
    EXPECT_EQ(offsetof(kv_InterruptContext, is_first_wait_call), 360U);
    EXPECT_EQ(offsetof(kv_InterruptContext, waiting_for_start), 361U);
    EXPECT_EQ(offsetof(kv_InterruptContext, intCount), 364U);
    EXPECT_EQ(offsetof(kv_InterruptContext, noIntCount), 368U);
    EXPECT_EQ(offsetof(kv_InterruptContext, irq_cpu_assigned), 372U);
    EXPECT_EQ(offsetof(kv_InterruptContext, priority), 376U);
    EXPECT_EQ(offsetof(kv_InterruptContext, defaultPriority), 380U);
    EXPECT_EQ(offsetof(kv_InterruptContext, isModelTrigger), 384U);
    EXPECT_EQ(offsetof(kv_InterruptContext, overloadCheckEnabled), 385U);
    EXPECT_EQ(sizeof(kv_InterruptContext), 392U);
}

}  // namespace
