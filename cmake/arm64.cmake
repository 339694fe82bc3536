# Debian's cross compiler for arm64 against the packages in build/arm64-sysroot (scripts/arm64-sysroot). Programs run here
# in an emulator of the processor; --library-path keeps /sys and the other folders those of this machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KV_ARM64_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm64-sysroot)
cmake_path(NORMAL_PATH KV_ARM64_SYSROOT)
if(NOT EXISTS ${KV_ARM64_SYSROOT})
    message(FATAL_ERROR "${KV_ARM64_SYSROOT} does not exist: run scripts/arm64-sysroot")
endif()

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_SYSROOT ${KV_ARM64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KV_ARM64_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${KV_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${KV_ARM64_SYSROOT}/usr/share/pkgconfig)

set(library_path ${KV_ARM64_SYSROOT}/lib/aarch64-linux-gnu:${KV_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-aarch64-static ${KV_ARM64_SYSROOT}/lib/aarch64-linux-gnu/ld-linux-aarch64.so.1 --library-path ${library_path})
