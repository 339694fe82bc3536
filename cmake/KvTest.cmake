# kv_add_test(NAME SOURCES...): one test program. Every test in it runs as a process of its own, so process-wide state
# never leaks from one test into the next. They get the label KV_TEST_LABEL, which the folder of the tests sets.
# Tests are compiled without optimisation, which for matchers takes as long as all the rest; lines are enough to find
# a failure in them.
set(KV_TEST_COMPILE_OPTIONS -O0 -g1)

function(kv_add_test name)
    add_executable(${name} ${ARGN})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/libkv ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${name} PRIVATE kv_test_support GTest::gmock GTest::gtest_main)
    target_compile_options(${name} PRIVATE ${KV_TEST_COMPILE_OPTIONS})
    target_precompile_headers(${name} REUSE_FROM kv_test_support)
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        PROPERTIES LABELS ${KV_TEST_LABEL} ENVIRONMENT "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/support/lsan.supp:print_suppressions=0")
endfunction()
