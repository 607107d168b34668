// Byte offsets of methods in the C vtables of the generated headers (widl's C declarations), so that a
// C++ test can hold them against the type library and against the slot positions of the host's
// components. Each interface's own methods are listed in the order the interface publishes them.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vtable_slot {
    const wchar_t* itf;    // interface name
    const wchar_t* member; // name in the vtable: get_X / put_X for a property
    size_t offset;         // byte offset in the vtable
};

// QVWIScanners.h: every interface of the type library with methods of its own.
extern const struct vtable_slot qv_library_slots[];
extern const size_t qv_library_slot_count;

// companions.h: the methods of the host's components that the server calls.
extern const struct vtable_slot qv_companion_slots[];
extern const size_t qv_companion_slot_count;

#ifdef __cplusplus
}
#endif
