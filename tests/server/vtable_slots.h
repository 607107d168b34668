// Offsets of methods in the C vtables of the generated headers, in the order each interface publishes
// them.
#pragma once
#include <guiddef.h>
#include <stddef.h>
#ifdef __cplusplus
extern "C" {
#endif
struct vtable_slot {
    const wchar_t* itf;    // interface name
    const wchar_t* member; // name in the vtable: get_X / put_X for a property
    const IID* iid;        // the header's identifier of the interface
    size_t offset;         // byte offset in the vtable
};
extern const struct vtable_slot qv_slots[];
extern const size_t qv_slot_count;
#ifdef __cplusplus
}
#endif
