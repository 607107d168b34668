# Tests of CDepFile, the dependency file record.
#
# Fixtures below <bin>/fixtures/depfile (sources in tests/fixtures/depfile):
#   olereg.exe          version 2.0.1.7 with an OLESelfRegister value
#   plain.exe           version 2.0.1.7 without one
#   olereg.dll          the OLESelfRegister resource in a DLL without DllRegisterServer; a load probe
#   probe.dll           exports DllRegisterServer; a load probe
#   probe_noexport.dll  no exports; a load probe
# A load probe sets QV_DEPFILE_LOADED=1 in the process that loads it, so that a test sees whether the
# record ran the file's initialisation code.
qv_fixture(olereg.exe DIR depfile SOURCES depfile/exe_entry.c RC depfile/olereg.rc)
qv_fixture(plain.exe DIR depfile SOURCES depfile/exe_entry.c RC depfile/plain.rc)
qv_fixture(olereg.dll DLL DIR depfile SOURCES depfile/probe_entry.c IMPORTS kernel32_env RC depfile/olereg.rc)
qv_fixture(probe.dll DLL DIR depfile SOURCES depfile/probe_entry.c depfile/register.c EXPORTS depfile/probe.def
    IMPORTS kernel32_env)
qv_fixture(probe_noexport.dll DLL DIR depfile SOURCES depfile/probe_entry.c IMPORTS kernel32_env)

# Through the DLL, as a client: creation, interfaces, setters and getters.
qv_add_test(dep_file_contract_test OWN_MAIN
    SOURCES dep_file_contract_test.cpp ${CMAKE_SOURCE_DIR}/tests/support/server_test_main.cpp
    LIBS qv_idl advapi32 oleaut32 DEPENDS QVWIScanners)
target_include_directories(dep_file_contract_test PRIVATE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/tests/toolkit)

# Inside the library: filling a record from real files, the folder tokens, the shared test, MakeDepFile.
qv_add_test(dep_file_test OWN_MAIN SOURCES dep_file_test.cpp LIBS qv_core DEPENDS qv_fixtures)
target_include_directories(dep_file_test PRIVATE ${CMAKE_SOURCE_DIR}/tests/toolkit)
