#include <kv/block.h>

namespace {

// The code generator knows an inherited sample time by these two numbers together.
constexpr double kInheritedSampleTime = -1.0;
constexpr double kInheritedOffset = 1.0;

// Option bits of the code generator, which gives them no names that could be used here.
constexpr uint32_T kGeneralBlockOptions = 2;
constexpr uint32_T kSetupBlockOptions = 10;

/** What setup blocks and regular blocks have in common, in the order of the setup; 0, or -1 as the callers.
 */
int initCommonSizes(KvBlockDescriptor* block, const KvMaskInit_SetupSettingsArgs& args) {
    if (kvMaskInit_setNumberOfSFunctionParams(block, args.numberOfParams) != 0) {
        return -1;
    }
    kvMaskInit_setZeroNumberOfStates(block);
    kvMaskInit_setToSingleRate(block);
    kvMaskInit_setVectorSizes(block, args.integerWorkVecLength, args.realWorkVecLength,
                              args.pointerWorkVecLength);
    return 0;
}

}  // namespace

void kvMaskInit_initSampleTimesForRegularBlock(KvBlockDescriptor* block, double sampleTime) {
    block->stInfo.sampleTimes[0] = sampleTime;
    block->stInfo.offsetTimes[0] = sampleTime == kInheritedSampleTime ? kInheritedOffset : 0.0;
}

void kvMaskInit_initSampleTimesForSetupBlock(KvBlockDescriptor* block) {
    kvMaskInit_initSampleTimesForRegularBlock(block, kInheritedSampleTime);
}

void kvMaskInit_setNoInputPorts(KvBlockDescriptor* block) {
    block->sizes.in = 0;
}

void kvMaskInit_setInputPorts(KvBlockDescriptor* block, unsigned int n, int width) {
    const int ports = static_cast<int>(n);
    block->sizes.in = ports;
    for (int k = 0; k < ports; ++k) {
        auto& port = block->portInfo.inputs[k];
        port.width = width;
        port.directFeedThrough = 1;
        port.attributes.contiguity = 1;
    }
}

void kvMaskInit_setNoOutputPorts(KvBlockDescriptor* block) {
    block->sizes.out = 0;
}

void kvMaskInit_setOutputPorts(KvBlockDescriptor* block, unsigned int n, int width) {
    const int ports = static_cast<int>(n);
    block->sizes.out = ports;
    for (int k = 0; k < ports; ++k) {
        block->portInfo.outputs[k].width = width;
    }
}

int kvMaskInit_setNumberOfSFunctionParams(KvBlockDescriptor* block, int n) {
    block->sizes.numSFcnParams = n;
    return block->sfcnParams.dlgNum == n ? 0 : -1;
}

void kvMaskInit_setZeroNumberOfStates(KvBlockDescriptor* block) {
    block->sizes.numContStates = 0;
    block->sizes.numDiscStates = 0;
}

void kvMaskInit_setToSingleRate(KvBlockDescriptor* block) {
    block->sizes.numSampleTimes = 1;
}

void kvMaskInit_setVectorSizes(KvBlockDescriptor* block, int iWork, int rWork, int pWork) {
    block->sizes.numIWork = iWork;
    block->sizes.numRWork = rWork;
    block->sizes.numPWork = pWork;
    block->sizes.numNonsampledZCs = 0;
    block->sizes.numModes = 0;
}

void kvMaskInit_setOptionsForSetupBlock(KvBlockDescriptor* block) {
    block->sizes.options = kSetupBlockOptions;
}

void kvMaskInit_setOptionsForGeneralBlock(KvBlockDescriptor* block) {
    block->sizes.options = kGeneralBlockOptions;
}

int kvMaskInit_initSizesForSetupBlock(KvBlockDescriptor* block, KvMaskInit_SetupSettingsArgs* args) {
    if (initCommonSizes(block, *args) != 0) {
        return -1;
    }
    kvMaskInit_setNoInputPorts(block);
    kvMaskInit_setNoOutputPorts(block);
    kvMaskInit_setOptionsForSetupBlock(block);
    return 0;
}

int kvMaskInit_initSizesForRegularBlock(KvBlockDescriptor* block, KvMaskInit_SetupSettingsArgs* args) {
    if (initCommonSizes(block, *args) != 0) {
        return -1;
    }
    kvMaskInit_setOptionsForGeneralBlock(block);
    return 0;
}
