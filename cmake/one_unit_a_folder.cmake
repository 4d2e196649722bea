# one_unit_a_folder(TARGET): where it is wanted, compiles all files of a folder in one go, which takes half
# the time. Each file still compiles alone: the default does that.
function(one_unit_a_folder target)
    if(NOT COMMON_DEVICE_ACCESS_UNITY)
        return()
    endif()
    get_target_property(sources ${target} SOURCES)
    foreach(source IN LISTS sources)
        cmake_path(GET source PARENT_PATH folder)
        string(MAKE_C_IDENTIFIER "${folder}" group)
        set_source_files_properties(${source} PROPERTIES UNITY_GROUP "${group}")
    endforeach()
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
endfunction()
