#include <dlfcn.h>

#include <gtest/gtest.h>

namespace {

TEST(Libraries, StayLoadedWhenTheyAreClosed) {
    void* const library = dlopen(KV_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    dlclose(library);
    for (const char* path : {KV_LIBRARY, BREVANE_LIBRARY}) {
        EXPECT_NE(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << path;
    }
}

}  // namespace
