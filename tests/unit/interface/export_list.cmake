# read_export_list(LIST RESULT): the symbols that a version script names.
function(read_export_list list result)
    file(READ "${list}" text)
    string(REGEX REPLACE "#[^\n]*" "" text "${text}")
    string(REPLACE ";" "!" text "${text}")
    string(REGEX MATCHALL "[ \n][A-Za-z_0-9]+!" symbols "${text}")
    list(TRANSFORM symbols REPLACE "[ \n!]" "")
    set(${result} "${symbols}" PARENT_SCOPE)
endfunction()
