# Compares what a library exports with its version script, which must name every symbol in full, and the version script
# with what the headers declare.
# Usage: cmake -DNM=nm -DLIBRARY=libkv.so -DLIST=libkv.map -DHEADERS=include/kv -P check_exports.cmake
cmake_minimum_required(VERSION 3.25)
include("${CMAKE_CURRENT_LIST_DIR}/export_list.cmake")

read_export_list("${LIST}" listed)
execute_process(COMMAND "${NM}" --dynamic --defined-only --format=just-symbols "${LIBRARY}"
    OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" exported "${output}")
list(LENGTH exported count)
message(STATUS "${count} exported symbols")

# complain(WHAT NAMES WITHOUT): an error that tells which of the names the other list has not.
function(complain what names without)
    list(REMOVE_ITEM names ${without})
    if(names)
        list(JOIN names "\n  " lines)
        message(SEND_ERROR "${what}:\n  ${lines}")
    endif()
endfunction()
complain("Exported, but not in ${LIST}" "${exported}" "${listed}")
complain("In ${LIST}, but not exported" "${listed}" "${exported}")

# What C++ functions and classes are called stands in the comments behind their symbols.
file(READ "${LIST}" list_text)
file(GLOB headers RELATIVE "${HEADERS}" "${HEADERS}/*.h")
list(REMOVE_ITEM headers export.h)
foreach(header ${headers})
    file(READ "${HEADERS}/${header}" header_text)
    string(REGEX REPLACE "[[;{]" "(" header_text "${header_text}")
    string(REGEX MATCHALL "KV_EXPORT [^()]*\\(" declarations "${header_text}")
    foreach(declaration ${declarations})
        string(REGEX MATCH "([A-Za-z_0-9]+)[ \n]*\\($" unused "${declaration}")
        set(name "${CMAKE_MATCH_1}")
        if(NOT list_text MATCHES "[ :]${name}[;:(]")
            message(SEND_ERROR "Declared in kv/${header}, but not in ${LIST}: ${name}")
        endif()
    endforeach()
endforeach()
