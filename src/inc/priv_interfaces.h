// Interfaces private to the server. They take C++ objects as arguments, which a type library cannot
// describe, so they stand here and not in QVWIScanners.idl: reachable by QueryInterface within one
// apartment of one process, never marshalled, never registered.
#pragma once

#include <windows.h>

#include <oaidl.h>

#include "QVWIScanners.h"

class CFilterBase;

// The static scan with the caller's filter. IStaticScan::ScanFile is this call with the default filter;
// the Visual Basic scanner passes its own. Arguments as ScanFile's, except that `completed` comes before
// the filter and `scanType` is the whole scan type: the mode bits and the catalog flag 32768.
// {BC19A92F-FF67-49C9-A473-DAC49F4AD1C3}
struct IPrivStaticScan : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE ScanWithFilter(BSTR file, IStaticScanEvents* events, VARIANT_BOOL bFilterFiles,
                                                     BSTR sLangID, VARIANT_BOOL* completed, CFilterBase* filter,
                                                     long scanType) = 0;
};

inline constexpr IID IID_IPrivStaticScan = {
    0xbc19a92f, 0xff67, 0x49c9, {0xa4, 0x73, 0xda, 0xc4, 0x9f, 0x4a, 0xd1, 0xc3}};

__CRT_UUID_DECL(IPrivStaticScan, 0xbc19a92f, 0xff67, 0x49c9, 0xa4, 0x73, 0xda, 0xc4, 0x9f, 0x4a, 0xd1, 0xc3)
