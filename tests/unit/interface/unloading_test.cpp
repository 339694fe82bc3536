#include <dlfcn.h>

#include <gtest/gtest.h>

namespace {

// libkv.so loads libbrevane_kernel.so, and would keep it: that one goes first, and this program is linked
// with neither.
TEST(Libraries, StayLoadedWhenTheyAreClosed) {
    for (const char* path : {BREVANE_LIBRARY, KV_LIBRARY}) {
        ASSERT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << path;
        void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        dlclose(library);
        EXPECT_NE(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << path;
    }
}

}  // namespace
