#include "static/static_scan.h"

#include "filter/qvwi_filter.h"
#include "record/dep_file.h"
#include "record/dep_files.h"
#include "static/dep_walker.h"
#include "static/make_dep_file.h"
#include "toolkit/scan_round.h"

CStaticScan::CStaticScan() = default;
CStaticScan::~CStaticScan() = default;

STDMETHODIMP CStaticScan::ScanFile(BSTR pVal, IStaticScanEvents* pEvents, VARIANT_BOOL bFilterFiles, BSTR sLangID,
                                   EScanType scanType, VARIANT_BOOL* bScanCompleted) {
    // The lists are loaded anew for every scan, also with filtering off: a missing or bad list fails
    // here, before anything is scanned. Exceptions pass, as told in the header.
    CQVWIFilter filter;
    filter.SetFiltering(bFilterFiles != 0);
    return ScanWithFilter(pVal, pEvents, bFilterFiles, sLangID, bScanCompleted, &filter, static_cast<long>(scanType));
}

STDMETHODIMP CStaticScan::get_Dependencies(IDepFiles** pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    if (!m_pDependencies)
        return S_OK;
    return m_pDependencies->QueryInterface(IID_IDepFiles, reinterpret_cast<void**>(pVal));
}

STDMETHODIMP CStaticScan::get_Edges(BSTR* lines) {
    return qv::copy_text_out(m_edges, lines);
}

STDMETHODIMP CStaticScan::ScanWithFilter(BSTR file, IStaticScanEvents* events, VARIANT_BOOL, BSTR sLangID,
                                         VARIANT_BOOL* completed, CFilterBase* filter, long scanType) {
    const qv::scan_round round; // the walk and the records made of it see each file as it was at its first look
    if (completed)
        *completed = VARIANT_FALSE;
    const qv::com_ptr<IStaticScanEvents> hold(events); // the client's sink, for the length of the call
    const std::wstring path = file ? std::wstring(file, SysStringLen(file)) : std::wstring();

    CDepWalker walker;
    walker.Scan(path, events, filter, sLangID ? std::wstring(sLangID, SysStringLen(sLangID)) : std::wstring(),
                scanType);
    // The collection of the last scan stays in place when the walk did not end.
    if (walker.Status != 0)
        return E_FAIL;

    m_pDependencies.reset();
    qv::com_ptr<CDepFiles> files = qv::make_object<CDepFiles>();

    for (const auto& [key, record] : walker.FoundFiles) {
        // A cycle that came back to the top file brought it into the map: it drops out again here.
        if (lstrcmpiW(record.FullPath.c_str(), path.c_str()) == 0)
            continue;
        bool isMergeModule = false;
        qv::bstr name;
        qv::com_ptr<IDepFile> record_file;
        MakeDepFile(files.get(), record, filter, isMergeModule, name.put(), record_file.put());
        if (!name.empty() && record_file)
            files->Add(name.get(), record_file.get());
    }

    for (const auto& [key, record] : walker.MissingFiles) {
        auto missing = qv::make_object<CDepFile>();
        qv::com_ptr<IDepFile> entry;
        check_hr(missing->QueryInterface(IID_IDepFile, entry.put_void()));
        std::wstring name = record.FullPath;
        missing->SetDetails(record.Details);
        if (record.MergeModuleSubject.empty() || record.MergeModuleKey.empty()) {
            missing->SetMissing(name);
        } else {
            if (files->Contains(record.MergeModuleKey))
                continue;
            missing->SetMergeModule(record.MergeModuleSubject, record.MergeModuleKey, false);
            name = record.MergeModuleKey;
            missing->SetMissing(name);
        }
        files->Add(name, entry.get());
    }

    m_pDependencies = std::move(files);
    m_edges = walker.EdgeLines();
    if (completed)
        *completed = VARIANT_TRUE;
    return S_OK;
}
