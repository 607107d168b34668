# Writes the fixed file version of some of Wine's own DLLs, as binutils' windres reads it, one
# "name=a.b.c.d" line each. The version tests compare the reader's answer for the prefix's copies
# with these lines, so the two sides use independent parsers of the same resource.
#   cmake -DWINDRES=<windres> -DDLL_DIR=<folder> -DNAMES=<a.dll;b.dll> -DOUT=<file> -P system_versions.cmake
set(lines "")
foreach(name IN LISTS NAMES)
    execute_process(COMMAND ${WINDRES} -i ${DLL_DIR}/${name} -O rc
        OUTPUT_VARIABLE rc RESULT_VARIABLE status ERROR_VARIABLE err)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "windres cannot read ${DLL_DIR}/${name}: ${err}")
    endif()
    if(NOT rc MATCHES "FILEVERSION ([0-9]+), ([0-9]+), ([0-9]+), ([0-9]+)")
        message(FATAL_ERROR "no FILEVERSION in ${DLL_DIR}/${name}")
    endif()
    string(APPEND lines "${name}=${CMAKE_MATCH_1}.${CMAKE_MATCH_2}.${CMAKE_MATCH_3}.${CMAKE_MATCH_4}\n")
endforeach()
file(WRITE ${OUT} "${lines}")
