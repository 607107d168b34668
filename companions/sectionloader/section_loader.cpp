// SectionLoader.dll: the section-file loader (IQvSectionLoader) and the objects it hands out, which share
// one read-only copy of the file. Its one class is handed out through DllGetClassObject with no
// registration; each live object and each class factory a client holds keeps one lock on the module.
#include "companions.h"
#include "inc/com_boundary.h"
#include "inc/com_module.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"
#include "inc/unique_handles.h"
#include "library_exports.h"
#include "toolkit/inifilex.h"

#include <memory>
#include <string>

namespace {

using file_ptr = std::shared_ptr<const qv::inifilex>;

// A 1-based number or a name of an Item call; E_INVALIDARG for any other kind of VARIANT.
HRESULT ReadIndex(const VARIANT& index, long& number, std::wstring& name) {
    if (V_VT(&index) == VT_BSTR || (V_VT(&index) == (VT_BSTR | VT_BYREF) && V_BSTRREF(&index))) {
        name = qv::bstr_text(V_VT(&index) == VT_BSTR ? V_BSTR(&index) : *V_BSTRREF(&index));
        number = 0;
        return S_OK;
    }
    qv::unique_variant value;
    if (FAILED(VariantChangeType(value.get(), const_cast<VARIANT*>(&index), 0, VT_I4)))
        return E_INVALIDARG;
    number = V_I4(value.get());
    return S_OK;
}

// The item numbered 1 to items.size(), or null.
template <class T> const T* Numbered(const std::vector<T>& items, long number) {
    return number >= 1 && static_cast<size_t>(number) <= items.size() ? &items[static_cast<size_t>(number) - 1]
                                                                       : nullptr;
}

class CQvEntry : public qv::object_root, public IQvEntry {
public:
    static constexpr bool aggregatable = false;
    CQvEntry(file_ptr file, const qv::inifileentryx* entry) : m_file(std::move(file)), m_entry(entry) {}

    QV_BEGIN_INTERFACE_MAP(CQvEntry)
    QV_INTERFACE(IID_IQvEntry, IQvEntry)
    QV_END_INTERFACE_MAP()

    STDMETHOD(get_Name)(BSTR* name) override { return qv::copy_text_out(m_entry->m_sKey, name); }
    STDMETHOD(get_Value)(BSTR* value) override { return qv::copy_text_out(m_entry->m_sValue, value); }

private:
    file_ptr m_file; // keeps the entry alive
    const qv::inifileentryx* m_entry;
};

class CQvEntries : public qv::object_root, public IQvEntries {
public:
    static constexpr bool aggregatable = false;
    CQvEntries(file_ptr file, const qv::inifilesectionx* section) : m_file(std::move(file)), m_section(section) {}

    QV_BEGIN_INTERFACE_MAP(CQvEntries)
    QV_INTERFACE(IID_IQvEntries, IQvEntries)
    QV_END_INTERFACE_MAP()

    STDMETHOD(get_Count)(long* count) override {
        if (!count)
            return E_POINTER;
        *count = static_cast<long>(m_section->m_entries.size());
        return S_OK;
    }
    STDMETHOD(Item)(VARIANT index, IQvEntry** entry) override {
        if (!entry)
            return E_POINTER;
        *entry = nullptr;
        long number = 0;
        std::wstring key;
        if (HRESULT hr = ReadIndex(index, number, key); FAILED(hr))
            return hr;
        const qv::inifileentryx* found = Numbered(m_section->m_entries, number);
        if (!found && (V_VT(&index) == VT_BSTR || V_VT(&index) == (VT_BSTR | VT_BYREF)))
            found = const_cast<qv::inifilesectionx*>(m_section)->Find(key);
        if (!found)
            return S_OK;
        return qv::com_boundary([&] {
            return qv::make_object<CQvEntry>(m_file, found)
                ->QueryInterface(IID_IQvEntry, reinterpret_cast<void**>(entry));
        });
    }

private:
    file_ptr m_file;
    const qv::inifilesectionx* m_section;
};

class CQvSection : public qv::object_root, public IQvSection {
public:
    static constexpr bool aggregatable = false;
    CQvSection(file_ptr file, const qv::inifilesectionx* section) : m_file(std::move(file)), m_section(section) {}

    QV_BEGIN_INTERFACE_MAP(CQvSection)
    QV_INTERFACE(IID_IQvSection, IQvSection)
    QV_END_INTERFACE_MAP()

    STDMETHOD(get_Name)(BSTR* name) override { return qv::copy_text_out(m_section->m_sName, name); }
    STDMETHOD(get_Entries)(IQvEntries** entries) override {
        return qv::com_boundary([&] {
            return qv::make_object<CQvEntries>(m_file, m_section)
                ->QueryInterface(IID_IQvEntries, reinterpret_cast<void**>(entries));
        });
    }

private:
    file_ptr m_file;
    const qv::inifilesectionx* m_section;
};

class CQvSections : public qv::object_root, public IQvSections {
public:
    static constexpr bool aggregatable = false;
    explicit CQvSections(file_ptr file) : m_file(std::move(file)) {}

    QV_BEGIN_INTERFACE_MAP(CQvSections)
    QV_INTERFACE(IID_IQvSections, IQvSections)
    QV_END_INTERFACE_MAP()

    STDMETHOD(get_Count)(long* count) override {
        if (!count)
            return E_POINTER;
        *count = static_cast<long>(m_file->Sections().size());
        return S_OK;
    }
    STDMETHOD(Item)(VARIANT index, IQvSection** section) override {
        if (!section)
            return E_POINTER;
        *section = nullptr;
        long number = 0;
        std::wstring name;
        if (HRESULT hr = ReadIndex(index, number, name); FAILED(hr))
            return hr;
        const qv::inifilesectionx* found = Numbered(m_file->Sections(), number);
        if (!found && number == 0)
            found = m_file->FindSection(name);
        if (!found)
            return S_OK;
        return qv::com_boundary([&] {
            return qv::make_object<CQvSection>(m_file, found)
                ->QueryInterface(IID_IQvSection, reinterpret_cast<void**>(section));
        });
    }

private:
    file_ptr m_file;
};

class CQvSectionLoader : public qv::object_root, public IQvSectionLoader {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CQvSectionLoader)
    QV_INTERFACE(IID_IQvSectionLoader, IQvSectionLoader)
    QV_END_INTERFACE_MAP()

    STDMETHOD(Load)(BSTR path) override {
        auto file = std::make_shared<qv::inifilex>();
        m_sProblem.clear();
        const bool whole = file->Load(qv::bstr_text(path), L"=", false);
        const DWORD error = whole ? 0 : file->GetLastError();
        if (error && error != ERROR_INVALID_DATA) {
            m_file = std::make_shared<qv::inifilex>();
            return HRESULT_FROM_WIN32(error);
        }
        if (!whole)
            m_sProblem = L"line " + std::to_wstring(file->BadLine()) + L": " + file->BadLineText();
        m_file = std::move(file);
        return whole ? S_OK : S_FALSE;
    }
    STDMETHOD(get_Root)(IQvSections** root) override {
        return qv::com_boundary([&] {
            return qv::make_object<CQvSections>(m_file)
                ->QueryInterface(IID_IQvSections, reinterpret_cast<void**>(root));
        });
    }
    STDMETHOD(get_Problem)(BSTR* text) override { return qv::copy_text_out(m_sProblem, text); }

private:
    file_ptr m_file = std::make_shared<qv::inifilex>();
    std::wstring m_sProblem;
};

} // namespace

std::span<const qv::library_class> companion::LibraryClasses() {
    static const qv::library_class classes[] = {{&CLSID_QvSectionLoader, &qv::creator<CQvSectionLoader>::CreateInstance}};
    return classes;
}
