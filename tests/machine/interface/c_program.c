/* A program in C that calls every function that the library exports to C, on a machine with boards, and looks
 * at what comes back.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "calls.h"
#include "exported_functions.h"

#define FUNCTION(name) {#name, (void (*)(void))(name), false},
static struct {
    const char* name;
    void (*address)(void);
    bool isCalled;
} functions[] = {EXPORTED_FUNCTIONS};
static const size_t nFunctions = sizeof(functions) / sizeof(functions[0]);

static int failures = 0;

void expectThat(int holds, const char* what, const char* file, int line) {
    if (!holds) {
        (void)fprintf(stderr, "%s:%d: %s does not hold; last reason: %s\n", file, line, what, pKvErrorStr);
        ++failures;
    }
}

void noteCall(const char* name) {
    for (size_t i = 0; i < nFunctions; ++i) {
        if (strcmp(functions[i].name, name) == 0) {
            functions[i].isCalled = true;
        }
    }
}

/* A header that defines a function itself would take the library's place without a word. */
static int isInLibrary(void (*function)(void)) {
    void* address;
    memcpy(&address, &function, sizeof(address));
    Dl_info info;
    return dladdr(address, &info) != 0 && strstr(info.dli_fname, "libkv.so") != NULL;
}

int main(void) {
    useProcess();
    useLifecycle();
    useRegistry();
    useBlocks();
    useTarget();
    useBoards();
    useMemory();
    useLines();
    for (size_t i = 0; i < nFunctions; ++i) {
        expectThat(functions[i].isCalled, functions[i].name, "not called", 0);
        expectThat(isInLibrary(functions[i].address), functions[i].name, "not from the library", 0);
    }
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
