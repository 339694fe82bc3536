# kv_add_model(NAME SOURCES...): builds a model into its application folder, NAME/bin/NAME beside NAME/misc/UUID, below
# KV_MODEL_FOLDER (by default the current binary folder). The UUID identifies the model: it changes with every source.
function(kv_add_model name)
    add_executable(${name} ${ARGN})
    target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PRIVATE kv::kv kv::brevane m)
    target_compile_options(${name} PRIVATE $<$<COMPILE_LANGUAGE:C>:-fexceptions>)  # cancelled threads unwind

    set(application ${CMAKE_CURRENT_BINARY_DIR}/${name})
    if(KV_MODEL_FOLDER)
        set(application ${KV_MODEL_FOLDER}/${name})
    endif()
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${application}/bin)

    set(inputs)
    foreach(source IN LISTS ARGN)
        cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
        list(APPEND inputs ${source})
    endforeach()
    add_custom_command(OUTPUT ${application}/misc/UUID
        COMMAND ${CMAKE_COMMAND} -E make_directory ${application}/misc
        COMMAND cat ${inputs} | sha256sum | cut -c 1-32 > ${application}/misc/UUID
        DEPENDS ${inputs}
        VERBATIM)
    add_custom_target(${name}_uuid ALL DEPENDS ${application}/misc/UUID)
    add_dependencies(${name} ${name}_uuid)
endfunction()
