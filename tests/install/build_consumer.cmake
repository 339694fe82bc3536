# Installs a build, builds the consumer against it in both ways and runs it on the simulated machine.
# Usage: cmake -DBUILD=... -DCONSUMER=... -DLIBRARY_DIR=lib -DCXX=g++ -DGENERATOR=Ninja -P build_consumer.cmake
cmake_minimum_required(VERSION 3.25)

set(work ${BUILD}/install-test)
set(prefix ${work}/prefix)
file(REMOVE_RECURSE ${work})
file(MAKE_DIRECTORY ${work})

function(run)
    execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${status} from ${ARGN}:\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

# expect_board(PROGRAM): it finds its board on the machine.
function(expect_board program)
    run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/${LIBRARY_DIR} BREVANE_LOG=off
        ${prefix}/bin/kvsim run ember -- ${program} --stop-time 0.05 --max-skipped 100)
    if(NOT output MATCHES "Ember real-time target machine, board at bus 9\n")
        message(FATAL_ERROR "${program} printed:\n${output}")
    endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
run(${prefix}/bin/kvctl --help)
run(${prefix}/bin/kvsim check ember)
if(NOT output MATCHES "^${prefix}/share/kvsim/machines/ember.yaml: ")
    message(FATAL_ERROR "kvsim does not find the machine that is installed with it:\n${output}")
endif()
foreach(tool kvctl kvsim)
    run(bash -n ${prefix}/share/bash-completion/completions/${tool})
    run(man --local-file ${prefix}/share/man/man1/${tool}.1)
endforeach()

run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${work}/package -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
run(${CMAKE_COMMAND} --build ${work}/package)
expect_board(${work}/package/consumer)
run(${CMAKE_COMMAND} -E env BREVANE_LOG=off ${work}/package/bench_test)
if(NOT output MATCHES "board at bus 9, port open\n")
    message(FATAL_ERROR "The test on a simulated machine printed:\n${output}")
endif()

set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBRARY_DIR}/pkgconfig)
run(pkg-config --cflags --libs kv brevane)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${CXX} -std=c++20 ${CONSUMER}/consumer.cpp -o ${work}/with-pkg-config ${flags})
expect_board(${work}/with-pkg-config)
