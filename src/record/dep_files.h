// The result containers of the scanners: CDepFiles (records by name), CDepFileBag (one tagged group of
// records, as the dynamic scanner makes them) and CDepFileBags (the groups by tag). Clients read them
// through IDepFiles, IDepFileBag and IDepFileBags; the scanners fill them through Add. None of them is
// created through the class table.
#pragma once

#include "QVWIScanners.h"
#include "inc/com_collection.h"
#include "inc/com_dispatch.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"

#include <string_view>

// Dependency file records under their keys (a file name, or a merge module's key).
class CDepFiles : public qv::CRefCollectionImpl<IDepFile*, IDepFiles, &LIBID_QVWISCANNERSLib,
                                                qv::interface_adapter<IDepFile>, &IID_IDepFiles> {};

// One tagged group of records. It owns a CDepFiles, made empty with the bag, by one reference.
//   auto bag = qv::make_object<CDepFileBag>(tag);   // tag: std::wstring_view
class CDepFileBag
    : public qv::support_error_info_impl<&IID_IDepFileBag>,
      public qv::dispatch_impl<IDepFileBag, &IID_IDepFileBag, qv::typeinfo_holder<&LIBID_QVWISCANNERSLib, 1, 0>>,
      public qv::object_root {
public:
    static constexpr bool aggregatable = false;

    // A null view (the default) gives a null tag; any other view, even an empty one, a BSTR of its text.
    // Throws com_exception(E_OUTOFMEMORY).
    explicit CDepFileBag(std::wstring_view tag = {});

    QV_BEGIN_INTERFACE_MAP(CDepFileBag)
    QV_INTERFACE(IID_IDepFileBag, IDepFileBag)
    QV_INTERFACE2(IID_IDispatch, IDispatch, IDepFileBag)
    QV_INTERFACE(IID_ISupportErrorInfo, ISupportErrorInfo)
    QV_END_INTERFACE_MAP()

    // Both bases are IUnknowns: these make the three calls unambiguous on a CDepFileBag*.
    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override = 0;
    STDMETHOD_(ULONG, AddRef)() override = 0;
    STDMETHOD_(ULONG, Release)() override = 0;

    // Makes the empty CDepFiles.
    HRESULT FinalConstruct();

    // IDepFileBag
    STDMETHOD(get_TagName)(BSTR* pVal) override;
    STDMETHOD(get_Files)(IDepFiles** pVal) override;

    // The bag's own collection, for the scanners that fill it; no new reference.
    CDepFiles* DepFiles() const noexcept { return m_files.get(); }
    // The tag as stored (null for a null tag).
    BSTR Tag() const noexcept { return m_tagName.get(); }

private:
    qv::com_ptr<CDepFiles> m_files;
    qv::bstr m_tagName;
};

// The bags of one dynamic scan, under their tags.
class CDepFileBags : public qv::CRefCollectionImpl<IDepFileBag*, IDepFileBags, &LIBID_QVWISCANNERSLib,
                                                   qv::interface_adapter<IDepFileBag>, &IID_IDepFileBags> {};
