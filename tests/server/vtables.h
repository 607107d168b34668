// The IID and vtable size of each interface of the generated header (vtables.c).
#pragma once
#include <guiddef.h>
#include <stddef.h>
#ifdef __cplusplus
extern "C" {
#endif
struct vtable_size {
    const wchar_t* itf;
    const IID* iid;
    size_t size; // bytes
};
extern const struct vtable_size qv_vtables[];
extern const size_t qv_vtable_count;
#ifdef __cplusplus
}
#endif
