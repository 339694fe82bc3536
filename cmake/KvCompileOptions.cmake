# Language level, warnings and sanitizers for everything in the tree.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_compile_options(
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wcast-qual -Wundef -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi>
    $<$<COMPILE_LANGUAGE:C>:-fexceptions>)

# g++ 12 sees overlapping copies in plain std::string concatenation at -O3.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()

if(KV_SANITIZE)
    # The check of virtual tables opens a pipe: without a free descriptor, which some tests bring about, it reports
    # sound objects.
    add_compile_options(-fsanitize=${KV_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${KV_SANITIZE})
endif()

# A cross linker seeks what libkv.so needs below its sysroot, and not where libkv.so says that it lies.
if(CMAKE_CROSSCOMPILING)
    add_link_options(-Wl,-rpath-link,${PROJECT_BINARY_DIR}/brevane)
endif()
