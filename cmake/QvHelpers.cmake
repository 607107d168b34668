# Small helpers shared by every folder of the build.

# GoogleTest from Debian's sources, built by the cross compiler.
function(qv_enable_gtest)
    if(TARGET gtest)
        return()
    endif()
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
    add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endfunction()

# qv_add_test(NAME SOURCES ... [LIBS ...] [DEPENDS ...] [OWN_MAIN])
# One test binary, one CTest entry: the binary runs all its cases in one process under Wine. Cases that
# need a process of their own (another Path, a fresh process-wide cache) start one themselves.
# OWN_MAIN: the sources bring main() (to check the module state after all cases, say).
function(qv_add_test name)
    cmake_parse_arguments(T "OWN_MAIN" "" "SOURCES;LIBS;DEPENDS" ${ARGN})
    qv_enable_gtest()
    add_executable(${name} ${T_SOURCES})
    set(main gtest_main)
    if(T_OWN_MAIN)
        set(main)
    endif()
    target_link_libraries(${name} PRIVATE ${T_LIBS} qv_test_support gmock ${main} gtest)
    if(T_DEPENDS)
        add_dependencies(${name} ${T_DEPENDS})
    endif()
    add_test(NAME ${name} COMMAND ${name} --gtest_color=no WORKING_DIRECTORY ${QV_BIN_DIR})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300 ENVIRONMENT "QV_FIXTURES=${QV_FIXTURE_DIR}"
        FAIL_REGULAR_EXPRESSION "\\[  FAILED  \\]")
endfunction()

# A version resource for a shipped binary, from project()'s version: FILENAME as it is shipped, DESCRIPTION for
# its FileDescription, APP for an executable (else a DLL). A target with its own .rc includes the generated
# file instead, through INCLUDE_ONLY.
function(qv_version_resource target)
    cmake_parse_arguments(V "APP;INCLUDE_ONLY" "FILENAME;DESCRIPTION" "" ${ARGN})
    set(QV_RC_FILENAME ${V_FILENAME})
    set(QV_RC_DESCRIPTION ${V_DESCRIPTION})
    set(QV_RC_INTERNAL ${target})
    set(QV_RC_FILETYPE VFT_DLL)
    if(V_APP)
        set(QV_RC_FILETYPE VFT_APP)
    endif()
    set(rc ${CMAKE_BINARY_DIR}/generated/version-${target}.rc)
    configure_file(${CMAKE_SOURCE_DIR}/cmake/version.rc.in ${rc} @ONLY)
    if(V_INCLUDE_ONLY)
        return()
    endif()
    set_source_files_properties(${rc} PROPERTIES OBJECT_DEPENDS ${CMAKE_BINARY_DIR}/generated/qv_version.h)
    target_sources(${target} PRIVATE ${rc})
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:RC>:-I${CMAKE_BINARY_DIR}/generated>)
endfunction()

# The debug information of every binary linked after this call, moved to a file beside it (NAME.debug, which the
# binary names through .gnu_debuglink, so gdb still finds it). Wine copies each section of a PE image into
# memory when it loads it, debug sections included: left in, they made the DLL and qvscan.exe cost 60 MB of
# every process that runs them. A release has no debug information to move.
macro(qv_split_debug_info)
    if(CMAKE_OBJCOPY AND NOT CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$")
        set(_qv_split " && ${CMAKE_OBJCOPY} --only-keep-debug <TARGET> <TARGET>.debug && ${CMAKE_OBJCOPY} --strip-debug --add-gnu-debuglink=<TARGET>.debug <TARGET>")
        foreach(_qv_rule CMAKE_C_LINK_EXECUTABLE CMAKE_CXX_LINK_EXECUTABLE CMAKE_C_CREATE_SHARED_LIBRARY
                         CMAKE_CXX_CREATE_SHARED_LIBRARY CMAKE_C_CREATE_SHARED_MODULE CMAKE_CXX_CREATE_SHARED_MODULE)
            string(APPEND ${_qv_rule} "${_qv_split}")
        endforeach()
    endif()
endmacro()
