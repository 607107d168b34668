// The commands of qvscan, each in a file of its own, for the dispatcher in main.cpp. A command reads its
// options, does its work through the shared modules, writes its output and returns its exit code; what it
// throws is told by the dispatcher.
#pragma once

#include "options.h"
#include "records.h"
#include "server_dll.h"

namespace qvscan {

// Without the server.
int run_ini(const options& o);   // ini_command.cpp
int run_setup(const options& o); // setup_command.cpp
int run_msm(const options& o);   // msm_command.cpp (needs COM)

// Through the scanners.
int run_static(const server_dll& dll, const options& o);   // static_command.cpp
int run_why(const server_dll& dll, const options& o);      // static_command.cpp
int run_bundle(const server_dll& dll, const options& o);   // static_command.cpp
int run_pe(const server_dll& dll, const options& o);       // pe_command.cpp
int run_assembly(const server_dll& dll, const options& o); // assembly_command.cpp
int run_vbp(const server_dll& dll, const options& o);      // vbp_command.cpp
// vbp_command.cpp: a project's scan for bundle, its program and every record; ExitOk, or the exit code of a scan
// that failed or stopped (told).
int project_closure(const server_dll& dll, const options& o, std::vector<std::wstring>& programs,
                    std::vector<record>& records);
int run_trace(const server_dll& dll, const options& o);    // trace_command.cpp: trace and attach
int run_register(const server_dll& dll, const options& o); // register_command.cpp: register and unregister

} // namespace qvscan
