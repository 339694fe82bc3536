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
string(REGEX REPLACE "[][]" "" listing "${listing}")  # brackets hold the elements of a list together

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

# The jump itself, loading where it leads, and what fills up the space to the next function. x86-64 also widens the 16-bit
# arguments of findPciDevice, which its callers need not do.
set(jump "jmp|br?\t|adrp\tx16,|ldr\tx16,|nop|xchg +%ax,%ax|data16|cs nop|endbr64|bti")
set(jump_kv_hdlc_findPciDevice_v19b "${jump}|movzwl")

foreach(entry ${entries})
    set(allowed "${jump}")
    if(DEFINED jump_${entry})
        set(allowed "${jump_${entry}}")
    endif()
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
    endif()
    string(REGEX MATCHALL "\n *[0-9a-f]+:\t[a-z][^\n]*" instructions "${code}")
    list(FILTER instructions EXCLUDE REGEX ":\t(${allowed})")
    list(FILTER instructions EXCLUDE REGEX "\tR_")
    if(instructions OR NOT code MATCHES "\t(jmp|br?)[ \t]")
        message(SEND_ERROR "${entry} does more than jump to ${current}:\n${code}")
    endif()
endforeach()
