#include "analog_channel.h"

#include <math.h>

#include <kv/registry.h>

int analogChannel_start(AnalogChannel* block, KvError* error) {
    const char* moduleName = block->blockType == ANALOG_INPUT_BLOCK ? "Analog Input" : "Analog Output";
    kvError_setPreamble(error, moduleName, block->blockName, block->moduleId);

    kv_mod_info* module = kv_module_get_single(ANALOG_MODULE_TYPE, (uint32_t)block->moduleId);
    if (module == NULL) {
        kvError_setMsg(error, "there is no setup block with this ID");
        return -1;
    }
    if (block->channel >= ANALOG_CHANNELS) {
        kvError_setMsg(error, "the board has no channel %u", block->channel);
        return -1;
    }
    if (kv_block_register(module, block->blockType, block->channel) == NULL) {
        kvError_setMsg(error, "channel %u: %s", block->channel, pKvErrorStr);
        return -1;
    }
    block->board = module->custom_data;
    return 0;
}

void analogChannel_terminate(AnalogChannel* block) {
    if (block->board != NULL) {
        kv_mod_info* module = kv_module_get_single(ANALOG_MODULE_TYPE, (uint32_t)block->moduleId);
        kv_block_unregister(module, block->blockType, block->channel);
        block->board = NULL;
    }
}

double analogChannel_read(const AnalogChannel* block) {
    const int32_t counts = (int32_t)analogBoard_read(block->board, ANALOG_INPUT_0 + 4 * block->channel);
    return counts / ANALOG_COUNTS_PER_VOLT;
}

void analogChannel_write(const AnalogChannel* block, double volts) {
    const double counts = fmin(fmax(volts * ANALOG_COUNTS_PER_VOLT, INT16_MIN), INT16_MAX);
    analogBoard_write(block->board, ANALOG_OUTPUT_0 + 4 * block->channel, (uint32_t)(int32_t)lround(counts));
}
