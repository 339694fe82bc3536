# Headers of other libraries take most of the time of a compilation, so each target with many files compiles them once.
# Headers of this project are not among them: a change of one would compile everything anew. Every file includes what it
# needs and compiles without them, too.

# What the product's targets and the tests use most of the C++ library.
set(KV_STANDARD_HEADERS
    <algorithm> <array> <charconv> <chrono> <filesystem> <functional> <map> <memory> <optional> <set> <span> <stdexcept>
    <string> <utility> <vector>)

if(NOT KV_PRECOMPILE_HEADERS)
    set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
    return()
endif()

# g++ 12 takes the C++ library for a part of the file then, and shows what it finds in plain std::string concatenation.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    add_compile_options("$<$<COMPILE_LANGUAGE:CXX>:-Wno-array-bounds;-Wno-stringop-overflow>")
endif()

# What ccache needs to know such files.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fpch-preprocess>)
endif()
if(CMAKE_CXX_COMPILER_LAUNCHER MATCHES "ccache$" AND NOT DEFINED ENV{CCACHE_SLOPPINESS})
    list(PREPEND CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
        CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime)
endif()
