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
