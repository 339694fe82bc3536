/* Links every function that the library exports to C, and does a little of what a driver written in C does.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "exported_functions.h"

#define FUNCTION(name) {#name, (void (*)(void))(name)},
static const struct {
    const char* name;
    void (*address)(void);
} functions[] = {EXPORTED_FUNCTIONS};

static int failures = 0;

static void expect(int holds, const char* what) {
    if (!holds) {
        (void)fprintf(stderr, "%s\n", what);
        ++failures;
    }
}

/* A header that defines a function itself would take the library's place without a word. */
static void expectInLibrary(const char* name, void (*function)(void)) {
    void* address;
    memcpy(&address, &function, sizeof(address));
    Dl_info info;
    if (dladdr(address, &info) == 0 || strstr(info.dli_fname, "libkv.so") == NULL) {
        (void)fprintf(stderr, "%s does not come from the library\n", name);
        ++failures;
    }
}

static void useThreads(void) {
    void* const semaphore = kv_createSemaphore(0);
    void* const mutex = kv_createMutex(true);
    expect(kv_tryLockMutex(mutex), "a new mutex is free");
    expect(!kv_tryLockMutex(mutex), "a locked mutex is not");
    kv_unlockMutex(mutex);
    kv_destroyMutex(mutex);
    expect(kv_releaseSemaphore(semaphore) == 0 && kv_waitForSemaphore(semaphore) == 0,
           "a raised semaphore lets one through");
    expect(kv_destroySemaphore(semaphore) == 0, "a semaphore can be destroyed");
}

static void useRegistry(void) {
    kv_mod_info* const module = kv_hdlc_module_register_v19b(7, 1);
    kv_block_info* const block = kv_block_register_with_uid(module, 2, UINT64_MAX);
    expect(block != NULL && block == kv_block_get_by_uid(module, 2, UINT64_MAX),
           "a block is found by its uid");
    expect(kv_module_alloc_custom_data(module, 8) == module->custom_data, "a module has custom data");
    free(module->custom_data);
    expect(kv_module_register(7, 1) == NULL && strlen(pKvErrorStr) > 0, "a module is registered once");
    kv_module_unregister(7, 1);
}

static void useTexts(void) {
    char path[100];
    kv_fullFile(2, path, "/usr", "kelvaro");
    expect(strcmp(path, "/usr/kelvaro") == 0, path);
    KvError* const error = kvError_new();
    kvError_setPreamble(error, "TIO-100", "Setup", 3);
    kvError_setMsg(error, "%d volts", 5);
    expect(strcmp(kvError_getMsg(error), "In TIO-100, Setup block, ID 3: 5 volts") == 0,
           kvError_getMsg(error));
    kvError_delete(error);
    uint32_t hash = 0;
    MurmurHash3_x86_32(path, 4, 1, &hash);
    expect(hash != 0, "a hash is written");
}

int main(void) {
    for (size_t i = 0; i < sizeof(functions) / sizeof(functions[0]); ++i) {
        expectInLibrary(functions[i].name, functions[i].address);
    }
    useThreads();
    useRegistry();
    useTexts();
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
