/* What needs no hardware: the process, its threads, the model's life, the registry and the blocks. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <kv/block.h>
#include <kv/diagnostics.h>
#include <kv/hash.h>
#include <kv/hdlc.h>
#include <kv/lifecycle.h>
#include <kv/process.h>
#include <kv/registry.h>
#include <kv/threads.h>

#include "calls.h"

static void* answer(void* question) {
    return question;
}

static void raise(void* counter) {
    ++*(int*)counter;
}

static void nothing(void) {}

static void useTime(void) {
    EXPECT(CALL(kv_times_five)(2) == 10);
    EXPECT(CALL(kv_getTSCFrequency)() > 1000000);
    const double before = CALL(kv_getElapsedTime)();
    CALL(kv_wait_ns)(1000);
    CALL(kv_wait_s)(1e-6);
    CALL(kv_hdlc_wait_s_v19b)(1e-6);
    EXPECT(CALL(kv_hdlc_getElapsedTime_v19b)() - before >= 3e-6);
}

static void useThreads(void) {
    void* const semaphore = CALL(kv_createSemaphore)(0);
    EXPECT(CALL(kv_releaseSemaphore)(semaphore) == 0 && CALL(kv_waitForSemaphore)(semaphore) == 0);
    EXPECT(CALL(kv_destroySemaphore)(semaphore) == 0);
    void* const mutex = CALL(kv_createMutex)(true);
    EXPECT(CALL(kv_tryLockMutex)(mutex));
    EXPECT(!kv_tryLockMutex(mutex));
    CALL(kv_unlockMutex)(mutex);
    CALL(kv_lockMutex)(mutex);
    kv_unlockMutex(mutex);
    CALL(kv_destroyMutex)(mutex);

    void* const thread = CALL(kv_createThread)(answer, NULL);
    noteCall("kv_destroyThread"); /* made only with real-time rights */
    EXPECT(thread == NULL || kv_destroyThread(thread) == 0);
    EXPECT(CALL(kv_setPidPriority)(getpid(), 500) == -1);
    EXPECT(CALL(kv_getPidPriority)(getpid()) >= 0);
    (void)CALL(kv_setAbilities)();
    (void)CALL(kv_hdlc_setAbilities_v19b)();
    CALL(kv_signalBaseRateSync)();
    EXPECT(CALL(kv_waitForBaseRateSync)() == 0);

    EXPECT(CALL(kv_pickNextAsyncCpu)() >= 0);
    EXPECT(CALL(kv_pinThisThreadToCpu)(-1) == -1);
    EXPECT(CALL(kv_pinThreadExclusiveCpu)(-1) != 0);
}

static void usePortsOfOtherPlatforms(void) {
    EXPECT(CALL(kv_inpB)(0x60) == 0 && CALL(kv_inpW)(0x60) == 0 && CALL(kv_inpDW)(0x60) == 0);
    EXPECT(CALL(kv_hdlc_inpDW_v19b)(0x60) == 0);
    CALL(kv_outpB)(0x60, 1);
    CALL(kv_outpW)(0x60, 1);
    CALL(kv_outpDW)(0x60, 1);
    CALL(kv_hdlc_outpDW_v19b)(0x60, 1);
    CALL(kv_setDriveLetter)('c');
}

static void usePaths(void) {
    char path[4096];
    EXPECT(!CALL(kv_doesFsNodeExist)("/dev/null"));
    CALL(kv_fullFile)(2, path, "/usr", "kelvaro");
    EXPECT(strcmp(path, "/usr/kelvaro") == 0);
    EXPECT(CALL(kv_getConfigBaseDir)(path, sizeof(path)) == 0 && strcmp(path, "/usr/kelvaro") == 0);
    EXPECT(CALL(kv_getModelBaseDir)(path, sizeof(path)) == 0);
    EXPECT(CALL(kv_hdlc_getModelBaseDir_v21a)(path, sizeof(path)) == 0);
    EXPECT(CALL(kv_fs_ensureDirExists)("/tmp/kelvaro/below") == 0);
    EXPECT(CALL(kv_fs_checkDir)("/tmp/kelvaro/below") == 0);
    const int null = CALL(kv_openAsRoot)("/dev/null", O_RDWR);
    EXPECT(null >= 0 && close(null) == 0);
    EXPECT(CALL(kv_spawnExecutable)("/no/such", "program", "") != 0);
    EXPECT(CALL(kv_hdlc_spawnExecutable_v21b)("/no/such", "program", "") != 0);
    char version[KV_LIB_VERSION_SIZE];
    EXPECT(CALL(kv_getLibVersion)(version) == 0 && strncmp(version, "2.4.1", 5) == 0);
}

static void useTexts(void) {
    CALL(kv_printf)(kv_trace, "%d volts", 5);
    CALL(kv_log)(kv_trace, "5 volts");
    KvError* const error = CALL(kvError_new)();
    CALL(kvError_setPreamble)(error, "TIO-100", "Setup", 3);
    CALL(kvError_setMsg)(error, "%d volts", 5);
    EXPECT(strcmp(CALL(kvError_getMsg)(error), "In TIO-100, Setup block, ID 3: 5 volts") == 0);
    CALL(kvError_extractMsg)(error, "6 volts");
    CALL(kvError_delete)(error);

    uint32_t hash[4] = {0};
    CALL(MurmurHash3_x86_32)("", 0, 1, hash);
    EXPECT(hash[0] == 0x514E28B7);
    CALL(MurmurHash3_x86_128)("key", 3, 1, hash);
    const uint32_t first = hash[0];
    CALL(MurmurHash3_x64_128)("key", 3, 1, hash);
    EXPECT(hash[0] != first);
}

void useProcess(void) {
    useTime();
    useThreads();
    usePortsOfOtherPlatforms();
    usePaths();
    useTexts();
}

void useLifecycle(void) {
    EXPECT(CALL(kv_is_early_init)() == 1);
    CALL(kv_register_early_init_function)(nothing);
    int blocks = 0;
    CALL(kv_early_init_set_blkInfo2)(&blocks);
    EXPECT(CALL(kv_early_init_get_blkInfo2)() == &blocks);
    CALL(kv_add_start_callback)(raise, &blocks, 0);
    CALL(kv_hdlc_add_start_callback_v26a)(raise, &blocks, 1);

    CALL(kv_initModelRun)();
    CALL(kv_hdlc_initModelRun_v21b)();
    CALL(kv_checkModelInit)();
    CALL(kv_setModelInit)();
    EXPECT(CALL(kv_isModelInit)() == 1 && CALL(kv_isFirstModelLoad)() == 1);
    CALL(kv_clearModelInit)();
    EXPECT(CALL(kv_hdlc_isModelInit_v19b)() == 0 && CALL(kv_hdlc_isFirstModelLoad_v26a)() == 0);
    (void)CALL(kv_tagModelRun)();
    CALL(kv_hdlc_terminateModelRun_v22a)();
    CALL(kv_tagModelAtExit)();

    int ended = 0;
    CALL(kv_add_exit_handler)(raise, &ended);
    CALL(kv_exit_handler)();
    EXPECT(ended == 1);
}

void useRegistry(void) {
    kv_mod_info* const module = CALL(kv_hdlc_module_register_v19b)(7, 1);
    EXPECT(CALL(kv_module_register)(7, 1) == NULL && strlen(pKvErrorStr) > 0);
    EXPECT(CALL(kv_module_get_single)(7, 1) == module &&
           CALL(kv_hdlc_module_get_single_v24a)(7, 1) == module);
    kv_mod_list modules = NULL;
    EXPECT(CALL(kv_module_get)(&modules, 7, -1) == 1 && modules[0] == module);
    free(modules);
    EXPECT(CALL(kv_hdlc_module_get_v19b)(&modules, 7, 1) == 1);
    free(modules);
    void* const data = CALL(kv_module_alloc_custom_data)(module, 8);
    EXPECT(data != NULL && CALL(kv_module_get_custom_data)(7, 1) == data);
    free(module->custom_data);

    kv_block_info* const block = CALL(kv_block_register)(module, 2, 5);
    EXPECT(CALL(kv_block_get)(module, 2, 5) == block && CALL(kv_hdlc_block_get_v24a)(module, 2, 5) == block);
    kv_block_info* const last = CALL(kv_block_register_with_uid)(module, 2, UINT64_MAX);
    EXPECT(last != NULL && CALL(kv_block_get_by_uid)(module, 2, UINT64_MAX) == last);
    EXPECT(CALL(kv_hdlc_block_register_v24a)(module, 3, 5) != NULL);
    CALL(kv_block_unregister)(module, 2, 5);
    CALL(kv_hdlc_block_unregister_v24a)(module, 3, 5);
    EXPECT(kv_block_get(module, 2, 5) == NULL && kv_block_get(module, 3, 5) == NULL);
    CALL(kv_module_unregister)(7, 1);
    EXPECT(kv_module_register(7, 1) != NULL);
    CALL(kv_hdlc_module_unregister_v19b)(7, 1);
}

void useBlocks(void) {
    double sampleTime = 0;
    double offset = 0;
    KvBlockInputPort input = {0};
    KvBlockOutputPort output = {0};
    double numbers[] = {1, 3, 65, 0, -2};
    double* parameters[] = {numbers};
    KvBlockDescriptor block = {
        .stInfo = {&sampleTime, &offset}, .sfcnParams = {1, parameters}, .portInfo = {&input, &output}};
    CALL(kvMaskInit_initSampleTimesForRegularBlock)(&block, 0.5);
    EXPECT(sampleTime == 0.5);
    CALL(kvMaskInit_initSampleTimesForSetupBlock)(&block);
    CALL(kvMaskInit_setInputPorts)(&block, 1, 8);
    CALL(kvMaskInit_setOutputPorts)(&block, 1, 4);
    EXPECT(input.width == 8 && output.width == 4);
    CALL(kvMaskInit_setNoInputPorts)(&block);
    CALL(kvMaskInit_setNoOutputPorts)(&block);
    EXPECT(CALL(kvMaskInit_setNumberOfSFunctionParams)(&block, 1) == 0);
    CALL(kvMaskInit_setZeroNumberOfStates)(&block);
    CALL(kvMaskInit_setToSingleRate)(&block);
    CALL(kvMaskInit_setVectorSizes)(&block, 1, 2, 3);
    EXPECT(block.sizes.numPWork == 3);
    CALL(kvMaskInit_setOptionsForSetupBlock)(&block);
    CALL(kvMaskInit_setOptionsForGeneralBlock)(&block);
    KvMaskInit_SetupSettingsArgs sizes = {.numberOfParams = 1};
    EXPECT(CALL(kvMaskInit_initSizesForSetupBlock)(&block, &sizes) == 0);
    EXPECT(CALL(kvMaskInit_initSizesForRegularBlock)(&block, &sizes) == 0);

    EXPECT(CALL(kvParam_getInt)(&block, 0) == 65 && CALL(kvParam_getBool)(&block, 0));
    EXPECT(CALL(kvParam_getDouble)(&block, 0) == 65 && CALL(kvParam_getChar)(&block, 0) == 'A');
    KvParam_IntVec* const ints = CALL(kvParam_newIntVec)(&block, 0);
    KvParam_BoolVec* const bools = CALL(kvParam_newBoolVec)(&block, 0);
    KvParam_DoubleVec* const doubles = CALL(kvParam_newDoubleVec)(&block, 0);
    KvParam_CharVec* const chars = CALL(kvParam_newCharVec)(&block, 0);
    EXPECT(ints->len == 3 && ints->val[2] == -2 && !bools->val[1] && doubles->val[0] == 65);
    EXPECT(chars->val[0] == 'A');
    CALL(kvParam_deleteIntVec)(ints);
    CALL(kvParam_deleteBoolVec)(bools);
    CALL(kvParam_deleteDoubleVec)(doubles);
    CALL(kvParam_deleteCharVec)(chars);
}
