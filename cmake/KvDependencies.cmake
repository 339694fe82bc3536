# Everything here comes from Debian; scripts/setup installs it.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS log thread filesystem)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(yaml-cpp REQUIRED)
pkg_check_modules(libpci REQUIRED IMPORTED_TARGET libpci)

if(KV_BUILD_TESTS)
    find_package(GTest REQUIRED)
    include(GoogleTest)
    pkg_check_modules(libsystemd REQUIRED IMPORTED_TARGET libsystemd)
endif()
if(KV_BUILD_BENCH)
    find_package(benchmark REQUIRED)
    pkg_check_modules(pciaccess IMPORTED_TARGET pciaccess)
endif()
