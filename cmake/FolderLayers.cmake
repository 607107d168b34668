# The folders of src/ as layers: each folder is one library, and a file of a folder may include a header
# of another folder only when the folder's library links that folder's library, directly or through the
# libraries it links. Cycles between folders cannot then come back unnoticed: an upward include names a
# library that is not linked, and the build stops at that file and line.
#
#   qv_folder(<target> <folder>)          marks <target> as the library of src/<folder>
#   qv_check_folder_layers(<target>...)   after all of them exist: a check per folder, run before its
#                                         library builds and again whenever one of the folder's files changes
#
# In script mode (cmake -DQV_FOLDER=... -DQV_FOLDER_DIR=... -DQV_ALLOWED=a;b -DQV_FOLDERS=a;b;c
# -DQV_STAMP=... -P FolderLayers.cmake) it is the check itself.

function(qv_folder target folder)
    set_target_properties(${target} PROPERTIES QV_FOLDER ${folder})
endfunction()

# The folder libraries that target links, directly or through the libraries it links.
function(_qv_folder_closure target out)
    set(seen)
    set(pending ${target})
    while(pending)
        list(POP_FRONT pending current)
        if(NOT TARGET ${current} OR current IN_LIST seen)
            continue()
        endif()
        list(APPEND seen ${current})
        get_target_property(links ${current} LINK_LIBRARIES)
        get_target_property(interface ${current} INTERFACE_LINK_LIBRARIES)
        foreach(link IN LISTS links interface)
            string(REGEX REPLACE "^\\$<LINK_ONLY:(.*)>$" "\\1" link "${link}")
            if(TARGET ${link})
                list(APPEND pending ${link})
            endif()
        endforeach()
    endwhile()
    set(folders)
    foreach(library IN LISTS seen)
        get_target_property(folder ${library} QV_FOLDER)
        if(folder)
            list(APPEND folders ${folder})
        endif()
    endforeach()
    set(${out} ${folders} PARENT_SCOPE)
endfunction()

function(qv_check_folder_layers)
    set(all_folders)
    foreach(library IN LISTS ARGN)
        get_target_property(folder ${library} QV_FOLDER)
        list(APPEND all_folders ${folder})
    endforeach()
    foreach(library IN LISTS ARGN)
        get_target_property(folder ${library} QV_FOLDER)
        _qv_folder_closure(${library} allowed)
        set(dir ${CMAKE_SOURCE_DIR}/src/${folder})
        file(GLOB_RECURSE files CONFIGURE_DEPENDS ${dir}/*.h ${dir}/*.cpp ${dir}/*.c ${dir}/*.rc)
        set(stamp ${CMAKE_BINARY_DIR}/folder-layers/${folder}.stamp)
        string(REPLACE ";" "," allowed_arg "${allowed}")
        string(REPLACE ";" "," folders_arg "${all_folders}")
        add_custom_command(OUTPUT ${stamp}
            COMMAND ${CMAKE_COMMAND} -DQV_FOLDER=${folder} -DQV_FOLDER_DIR=${dir} -DQV_ALLOWED=${allowed_arg}
                    -DQV_FOLDERS=${folders_arg} -DQV_STAMP=${stamp} -P ${CMAKE_SOURCE_DIR}/cmake/FolderLayers.cmake
            DEPENDS ${files} ${CMAKE_SOURCE_DIR}/cmake/FolderLayers.cmake
            COMMENT "Checking the includes of src/${folder} against the libraries ${library} links"
            VERBATIM)
        add_custom_target(${library}_layers DEPENDS ${stamp})
        add_dependencies(${library} ${library}_layers)
    endforeach()
endfunction()

if(CMAKE_SCRIPT_MODE_FILE AND QV_FOLDER)
    cmake_policy(VERSION 3.25)
    string(REPLACE "," ";" allowed "${QV_ALLOWED}")
    string(REPLACE "," ";" folders "${QV_FOLDERS}")
    file(GLOB_RECURSE files ${QV_FOLDER_DIR}/*.h ${QV_FOLDER_DIR}/*.cpp ${QV_FOLDER_DIR}/*.c ${QV_FOLDER_DIR}/*.rc)
    list(SORT files)
    set(faults 0)
    foreach(file IN LISTS files)
        # Lines as a list that keeps empty lines, with the characters CMake lists treat specially masked.
        file(READ ${file} text)
        string(REPLACE ";" "<semicolon>" text "${text}")
        string(REPLACE "[" "<open>" text "${text}")
        string(REPLACE "]" "<close>" text "${text}")
        string(REPLACE "\\" "<backslash>" text "${text}")
        string(REPLACE "\n" ";" lines "${text}")
        set(number 0)
        foreach(line IN LISTS lines)
            math(EXPR number "${number} + 1")
            if(line MATCHES "^[ \t]*#[ \t]*include[ \t]*\"([A-Za-z0-9_]+)/")
                set(used ${CMAKE_MATCH_1})
                if(used IN_LIST folders AND NOT used IN_LIST allowed)
                    string(STRIP "${line}" line)
                    message(NOTICE "${file}:${number}: error: ${line}: src/${QV_FOLDER} does not link the library "
                                   "of src/${used}; a folder includes only from the folders below it")
                    math(EXPR faults "${faults} + 1")
                endif()
            endif()
        endforeach()
    endforeach()
    if(faults GREATER 0)
        message(FATAL_ERROR "src/${QV_FOLDER}: ${faults} include(s) against the folder layers")
    endif()
    file(TOUCH ${QV_STAMP})
endif()
