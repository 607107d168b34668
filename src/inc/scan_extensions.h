// What the static scan tells beyond its records, for the clients that ask: bits of the scan type that a
// client sets to have them, and the interface of a record that carries them. A client that sets none of the
// bits gets the same records as before, and the records answer the interface with nothing in it.
#pragma once

#include <windows.h>

#include <oaidl.h>

namespace qv::scan_type {

// Delay-loaded imports (the delay-import directory) are walked like imports, each with its own closure.
inline constexpr long delay_loads = 0x10000;
// The records say how they were reached, which entry points their DLL lacks, and which copies of another
// machine the search passed over (IQvDepFileDetails).
inline constexpr long details = 0x20000;
// The bits above together: what qvscan asks for.
inline constexpr long extensions = delay_loads | details;

} // namespace qv::scan_type

// The details of one record of a scan made with qv::scan_type::details. Texts are lines ending in "\n",
// fields within a line split by "\t"; an empty text says there is nothing to tell.
// {5E7C2A10-8B4D-4F0E-9A63-2C1D7B8E4F51}
struct IQvDepFileDetails : public IUnknown {
    // 1 when the file is needed only through delay-loaded imports (its application may run without it),
    // else 0.
    virtual HRESULT STDMETHODCALLTYPE get_DelayLoaded(long* delayOnly) = 0;
    // A line per importer whose calls the file does not export: the importer's path, then the names it
    // calls ("#12" for an ordinal), at most qv::entry_names_kept of them, then "+N" when N more were left
    // out.
    virtual HRESULT STDMETHODCALLTYPE get_MissingEntryPoints(BSTR* lines) = 0;
    // A line per file of the record's name that the search passed over because it was built for another
    // machine: its path, then the machine's name ("x86", "x64", "ARM64", ...).
    virtual HRESULT STDMETHODCALLTYPE get_PassedOver(BSTR* lines) = 0;
};

inline constexpr IID IID_IQvDepFileDetails = {
    0x5e7c2a10, 0x8b4d, 0x4f0e, {0x9a, 0x63, 0x2c, 0x1d, 0x7b, 0x8e, 0x4f, 0x51}};

__CRT_UUID_DECL(IQvDepFileDetails, 0x5e7c2a10, 0x8b4d, 0x4f0e, 0x9a, 0x63, 0x2c, 0x1d, 0x7b, 0x8e, 0x4f, 0x51)

// The graph of the last scan made with qv::scan_type::delay_loads or qv::scan_type::details, on StaticScan.
// {7A3D9C42-1E6B-4B8F-8D25-6F0A1C3E9B74}
struct IQvScanGraph : public IUnknown {
    // Every edge of the walk, in the order it met them, a line each: the file that led on, the name it led to
    // (file-name parts as written), the kind ("import", "delay", "dep" or "assembly"), and a fourth field
    // "missing" when the name was not found; tab-separated. Empty after a scan without the bits.
    virtual HRESULT STDMETHODCALLTYPE get_Edges(BSTR* lines) = 0;
};

inline constexpr IID IID_IQvScanGraph = {
    0x7a3d9c42, 0x1e6b, 0x4b8f, {0x8d, 0x25, 0x6f, 0x0a, 0x1c, 0x3e, 0x9b, 0x74}};

__CRT_UUID_DECL(IQvScanGraph, 0x7a3d9c42, 0x1e6b, 0x4b8f, 0x8d, 0x25, 0x6f, 0x0a, 0x1c, 0x3e, 0x9b, 0x74)

// The class ScanEvents: a sink for StaticScan.ScanFile that a script can make and hand in (a script's own
// objects lack the events interface). Not in the type library: it is the script's helper, not a scanner.
// {C3F1B6A2-4D7E-4E59-B8A0-5F2E9D61C7B3}
inline constexpr CLSID CLSID_ScanEvents = {0xc3f1b6a2, 0x4d7e, 0x4e59, {0xb8, 0xa0, 0x5f, 0x2e, 0x9d, 0x61, 0xc7, 0xb3}};

namespace qv {
// The most entry-point names one importer's line holds.
inline constexpr size_t entry_names_kept = 20;
} // namespace qv
