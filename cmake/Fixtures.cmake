# Test fixtures: real PE images built at build time by the cross compilers.
#
# Images are linked with -nostdlib and a bare entry point, so that their import tables hold exactly
# the libraries a fixture names: import libraries are made from .def files by dlltool.

set(QV_FIXTURE_DIR ${QV_BIN_DIR}/fixtures CACHE INTERNAL "")
set(QV_FIXTURE_SRC ${CMAKE_SOURCE_DIR}/tests/fixtures)
set(QV_FIXTURE_WORK ${CMAKE_BINARY_DIR}/fixture-work)
file(MAKE_DIRECTORY ${QV_FIXTURE_DIR} ${QV_FIXTURE_WORK})
add_custom_target(qv_fixtures ALL)

# qv_import_lib(<out-var> <def-file> <x64|x86>): an import library made by dlltool from a .def file.
function(qv_import_lib out def arch)
    get_filename_component(base ${def} NAME_WE)
    if(arch STREQUAL "x86")
        set(tool i686-w64-mingw32-dlltool)
        set(mach i386)
    else()
        set(tool x86_64-w64-mingw32-dlltool)
        set(mach i386:x86-64)
    endif()
    set(lib ${QV_FIXTURE_WORK}/${arch}/lib${base}.a)
    add_custom_command(OUTPUT ${lib}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${QV_FIXTURE_WORK}/${arch}
        COMMAND ${tool} -m ${mach} -d ${def} -l ${lib}
        DEPENDS ${def} VERBATIM)
    set(${out} ${lib} PARENT_SCOPE)
endfunction()

# qv_fixture(<file name>
#            SOURCES <c files>          sources, relative to tests/fixtures
#            [ARCH x64|x86]             default x64
#            [DLL]                      build a DLL (entry DllEntry) instead of an exe (entry ExeEntry)
#            [EXPORTS <def file>]       exports (of a DLL, or of an exe that others import from)
#            [IMPORTS <def files>]      import libraries to link (tests/fixtures/imports/<name>.def)
#            [RC <rc file>]             resources (version block, manifest)
#            [DIR <sub folder>])        where the image lands below the fixture folder
function(qv_fixture file)
    cmake_parse_arguments(F "DLL" "ARCH;EXPORTS;RC;DIR" "SOURCES;IMPORTS" ${ARGN})
    if(NOT F_ARCH)
        set(F_ARCH x64)
    endif()
    if(F_ARCH STREQUAL "x86")
        set(cc i686-w64-mingw32-gcc)
        set(rc i686-w64-mingw32-windres)
        set(entry_prefix _)
    else()
        set(cc x86_64-w64-mingw32-gcc)
        set(rc x86_64-w64-mingw32-windres)
        set(entry_prefix "")
    endif()
    set(outdir ${QV_FIXTURE_DIR})
    if(F_DIR)
        set(outdir ${QV_FIXTURE_DIR}/${F_DIR})
    endif()
    set(out ${outdir}/${file})

    set(srcs)
    foreach(s ${F_SOURCES})
        list(APPEND srcs ${QV_FIXTURE_SRC}/${s})
    endforeach()
    set(deps ${srcs})
    set(extra)
    foreach(i ${F_IMPORTS})
        qv_import_lib(lib ${QV_FIXTURE_SRC}/imports/${i}.def ${F_ARCH})
        list(APPEND extra ${lib})
        list(APPEND deps ${lib})
    endforeach()
    if(F_RC)
        string(MAKE_C_IDENTIFIER "${F_ARCH}_${F_DIR}_${file}" id)
        set(res ${QV_FIXTURE_WORK}/${id}.res.o)
        add_custom_command(OUTPUT ${res}
            COMMAND ${rc} --codepage=65001 -I${QV_FIXTURE_SRC} -i ${QV_FIXTURE_SRC}/${F_RC} -o ${res}
            DEPENDS ${QV_FIXTURE_SRC}/${F_RC} VERBATIM)
        list(APPEND extra ${res})
        list(APPEND deps ${res})
    endif()
    if(F_EXPORTS)
        list(APPEND extra ${QV_FIXTURE_SRC}/${F_EXPORTS})
        list(APPEND deps ${QV_FIXTURE_SRC}/${F_EXPORTS})
    endif()
    if(F_DLL)
        set(kind -shared -Wl,-e,${entry_prefix}DllEntry)
    else()
        set(kind -Wl,-e,${entry_prefix}ExeEntry)
    endif()
    add_custom_command(OUTPUT ${out}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${outdir}
        COMMAND ${cc} -O1 -nostdlib -ffreestanding -fno-asynchronous-unwind-tables -o ${out} ${kind} ${srcs} ${extra}
        DEPENDS ${deps}
        COMMENT "fixture ${F_DIR}/${file}" VERBATIM)
    string(MAKE_C_IDENTIFIER "fixture_${F_ARCH}_${F_DIR}_${file}" target)
    add_custom_target(${target} DEPENDS ${out})
    add_dependencies(qv_fixtures ${target})
endfunction()

find_program(QV_MCS mcs)
find_program(QV_RESGEN resgen)
if(NOT QV_MCS OR NOT QV_RESGEN)
    message(FATAL_ERROR "The .NET fixtures need Mono's C# compiler and resource generator (mcs, resgen): "
        "install the package mono-devel, or configure with -DQV_BUILD_TESTS=OFF.")
endif()


# .NET assemblies, built by Mono's C# compiler. Each output is appended to dotnet_outputs of the caller.
# qv_mcs(<output path>
#        SOURCES <.cs files>            relative to the calling folder
#        [TARGET exe|library|module]    default library
#        [PLATFORM anycpu|x86|x64]      default anycpu
#        [SIGNED]                       strong-name with fixture.snk of the calling folder
#        [DEFINES <symbols>]
#        [REFERENCES <assembly paths>]  -r, and dependencies of the build (a bare name: the framework's)
#        [MODULES <netmodule paths>]    -addmodule
#        [RESOURCES <.resources paths>])
function(qv_mcs out)
    cmake_parse_arguments(M "SIGNED" "TARGET;PLATFORM" "SOURCES;DEFINES;REFERENCES;MODULES;RESOURCES" ${ARGN})
    if(NOT M_TARGET)
        set(M_TARGET library)
    endif()
    if(NOT M_PLATFORM)
        set(M_PLATFORM anycpu)
    endif()
    set(args -nologo -noconfig -warnaserror+ -target:${M_TARGET} -platform:${M_PLATFORM} -out:${out})
    set(deps)
    foreach(s ${M_SOURCES})
        list(APPEND args ${CMAKE_CURRENT_SOURCE_DIR}/${s})
        list(APPEND deps ${CMAKE_CURRENT_SOURCE_DIR}/${s})
    endforeach()
    if(M_SIGNED)
        list(APPEND args -keyfile:${CMAKE_CURRENT_SOURCE_DIR}/fixture.snk)
        list(APPEND deps ${CMAKE_CURRENT_SOURCE_DIR}/fixture.snk)
    endif()
    foreach(d ${M_DEFINES})
        list(APPEND args -define:${d})
    endforeach()
    foreach(r ${M_REFERENCES})
        list(APPEND args -r:${r})
        if(IS_ABSOLUTE ${r}) # else an assembly of the compiler's own framework folder
            list(APPEND deps ${r})
        endif()
    endforeach()
    foreach(m ${M_MODULES})
        list(APPEND args -addmodule:${m})
        list(APPEND deps ${m})
    endforeach()
    foreach(r ${M_RESOURCES})
        list(APPEND args -resource:${r})
        list(APPEND deps ${r})
    endforeach()
    get_filename_component(dir ${out} DIRECTORY)
    file(RELATIVE_PATH shown ${QV_FIXTURE_DIR} ${out})
    add_custom_command(OUTPUT ${out}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
        COMMAND ${QV_MCS} ${args}
        DEPENDS ${deps}
        COMMENT "fixture ${shown}" VERBATIM)
    set(dotnet_outputs ${dotnet_outputs} ${out} PARENT_SCOPE)
endfunction()
