// What a registration entry of each class of the server holds: the class id, its coclass name, the
// ProgID pair, the threading model and the string resource of its description. The server writes none
// of it to the registry itself; tools that register the server for script hosts read it from here.
#pragma once

#include "QVWIScanners.h"
#include "inc/resource.h"
#include "inc/scan_extensions.h"

#include <windows.h>

namespace qv {

struct class_registration {
    const CLSID* clsid;
    const wchar_t* name;               // coclass name
    const wchar_t* progId;             // versioned ProgID, "<x>.1"
    const wchar_t* versionIndependent; // "<x>"
    const wchar_t* threadingModel;
    UINT descriptionResource;
    bool inTypeLibrary = true; // a coclass of the type library (its TypeLib entry is written)
};

// In the class table's order: StaticScan, DepChecker, ScanUtil, VBPScan, DotNetAssembly, DepFile, ScanEvents.
inline constexpr class_registration class_registrations[] = {
    {&CLSID_StaticScan, L"StaticScan", L"QVWIScanners.StaticScan.1", L"QVWIScanners.StaticScan", L"Apartment",
     IDS_CLASS_DESCRIPTION},
    {&CLSID_DepChecker, L"DepChecker", L"RunTimeDepChecker.DepChecker.1", L"RunTimeDepChecker.DepChecker",
     L"Apartment", IDS_CLASS_DESCRIPTION},
    {&CLSID_ScanUtil, L"ScanUtil", L"QVWIScanners.ScanUtil.1", L"QVWIScanners.ScanUtil", L"Apartment",
     IDS_CLASS_DESCRIPTION},
    {&CLSID_VBPScan, L"VBPScan", L"QVWIScanners.VBPScan.1", L"QVWIScanners.VBPScan", L"Apartment",
     IDS_CLASS_DESCRIPTION},
    // The ProgID's spelling is what clients use, and stays.
    {&CLSID_DotNetAssembly, L"DotNetAssembly", L"QVWIScanners.DotNetAssmembly.1", L"QVWIScanners.DotNetAssmembly",
     L"Apartment", IDS_CLASS_DESCRIPTION},
    {&CLSID_DepFile, L"DepFile", L"QVWIScanners.DepFile.1", L"QVWIScanners.DepFile", L"Apartment",
     IDS_CLASS_DESCRIPTION},
    // The script's sink for StaticScan (an addition of this tool, outside the type library).
    {&CLSID_ScanEvents, L"ScanEvents", L"QVWIScanners.ScanEvents.1", L"QVWIScanners.ScanEvents", L"Apartment",
     IDS_CLASS_DESCRIPTION, false},
};

} // namespace qv
