# Looks at the machine code of the versioned entry points: each must do nothing but jump to the function that bears its
# name without the version.
# Usage: cmake -DOBJDUMP=objdump -DLIST=libkv.map -DOBJECT=kv_hdlc_api.cpp.o -P check_entry_points.cmake
cmake_minimum_required(VERSION 3.25)
include("${CMAKE_CURRENT_LIST_DIR}/export_list.cmake")

set(kv_hdlc_allocPhysicalMemory_v19b kv_allocPhysicalMemory_uncached)
set(kv_hdlc_terminateModelRun_v22a kv_tagModelRun)

read_export_list("${LIST}" entries)
list(FILTER entries INCLUDE REGEX "_v[0-9][0-9][a-z]$")
if(NOT entries)
    message(FATAL_ERROR "No entry points in ${LIST}")
endif()
execute_process(COMMAND "${OBJDUMP}" --disassemble --reloc --no-show-raw-insn "${OBJECT}"
    OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(APPEND listing "\n\n")

# find_code(ENTRY RESULT): the lines of one function in the listing.
function(find_code entry result)
    string(FIND "${listing}" "<${entry}>:\n" begin)
    if(begin EQUAL -1)
        message(FATAL_ERROR "No ${entry} in ${OBJECT}")
    endif()
    string(SUBSTRING "${listing}" ${begin} -1 code)
    string(FIND "${code}" "\n\n" end)
    string(SUBSTRING "${code}" 0 ${end} code)
    set(${result} "${code}" PARENT_SCOPE)
endfunction()

foreach(entry ${entries})
    if(DEFINED ${entry})
        set(current ${${entry}})
    else()
        string(REGEX REPLACE "^(kv_hdlc_|kv_)?(.*)_v[0-9][0-9][a-z]$" "kv_\\2" current "${entry}")
        string(REGEX REPLACE "^kv_kv" "kv" current "${current}")
    endif()
    find_code(${entry} code)
    string(REGEX MATCHALL "R_[A-Z0-9_]+[ \t]+[A-Za-z_0-9]+" mentioned "${code}")
    list(TRANSFORM mentioned REPLACE ".*[ \t]" "")
    list(REMOVE_DUPLICATES mentioned)
    if(NOT mentioned STREQUAL current)
        message(SEND_ERROR "${entry} should forward to ${current}, but mentions \"${mentioned}\":\n${code}")
    elseif(NOT code MATCHES "\t(jmp|br?)[ \t]" OR code MATCHES "\t(call|ret|push|pop|sub|mov|blr?|stp|ldp)[ \t\n]")
        message(SEND_ERROR "${entry} does more than jump to ${current}:\n${code}")
    endif()
endforeach()
