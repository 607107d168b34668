// The wire between the dynamic scanner and its debug engine (TraceHost64.exe): the commands the scanner
// invokes on the engine's object and the events the engine invokes on the scanner's sink, each a
// late-bound IDispatch::Invoke with DISPATCH_METHOD. Both sides include this header.
#pragma once

#include <windows.h>

#include <oleauto.h>

namespace qv::engine {

// Commands, on the engine's object found in the running object table.
namespace command {
inline constexpr DISPID launch = 1;         // path, parameters, current directory (BSTR), load flags (I4)
inline constexpr DISPID attach_process = 2; // process ID (I4)
inline constexpr DISPID terminate = 3;      // none
// Not a command of the scanner's: tests make the engine report an event as if its debuggee had caused it.
inline constexpr DISPID report = 100; // event (I4), path or process ID
} // namespace command

// Events, on the scanner's sink.
namespace event {
inline constexpr DISPID load_dll = 1;              // path (BSTR)
inline constexpr DISPID unload_dll = 2;            // path (BSTR)
inline constexpr DISPID application_finished = 3;  // none
inline constexpr DISPID child_process_created = 4; // process ID, process handle, thread ID, thread handle (I4)
inline constexpr DISPID child_process_exit = 5;    // process ID (I4)
inline constexpr DISPID first = load_dll, last = child_process_exit;
} // namespace event

// Load flags of launch.
inline constexpr long launch_default = 1;
inline constexpr long launch_this_process_only = 2;

} // namespace qv::engine
