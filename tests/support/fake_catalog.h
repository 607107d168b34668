// Stand-ins for the host's merge-module catalog and its module records, laid out slot for slot as
// companions.idl declares them. Both fail the running test on any call they were not set up for (a
// placeholder slot, an unknown interface, a lookup nobody answered), count AddRef and Release, and note
// every call with its arguments. They live on the stack: a test checks that refs is back at 1.
#pragma once

#include "companions.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <map>
#include <string>
#include <vector>

namespace qv::test {

inline std::wstring bstr_text(BSTR text) {
    return text ? std::wstring(text, SysStringLen(text)) : std::wstring();
}

inline BSTR alloc_bstr(const std::wstring& text) {
    return SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

#define QV_FAKE_UNEXPECTED(name)                                                                                       \
    HRESULT STDMETHODCALLTYPE name() override {                                                                        \
        ADD_FAILURE() << "unexpected call of " #name " (" << m_label << ")";                                           \
        return E_NOTIMPL;                                                                                              \
    }

// The IUnknown part of both fakes: answers IUnknown and one interface, counts references.
class fake_unknown_base {
public:
    LONG refs = 1;
    int addRefs = 0;
    int releases = 0;
    int queries = 0; // QueryInterface calls of any kind

protected:
    explicit fake_unknown_base(const char* label) : m_label(label) {}
    // identity answers IUnknown, itf the interface own (when offered).
    HRESULT query(IUnknown* identity, IUnknown* itf, const IID& own, bool offersOwn, REFIID iid, void** ppv) {
        ++queries;
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        IUnknown* answer = IsEqualIID(iid, IID_IUnknown)         ? identity
                           : (offersOwn && IsEqualIID(iid, own)) ? itf
                                                                 : nullptr;
        if (answer) {
            answer->AddRef();
            *ppv = answer;
            return S_OK;
        }
        if (!IsEqualIID(iid, own))
            ADD_FAILURE() << "unexpected QueryInterface of " << m_label;
        return E_NOINTERFACE;
    }
    ULONG add_ref() {
        ++addRefs;
        return static_cast<ULONG>(InterlockedIncrement(&refs));
    }
    ULONG release() {
        ++releases;
        LONG r = InterlockedDecrement(&refs);
        if (r < 1)
            ADD_FAILURE() << m_label << " released more often than referenced";
        return static_cast<ULONG>(r);
    }

    const char* m_label;
};

// A module record: ModuleId, ModuleKey and ModuleName from what the test gives it.
class fake_module_record : public IQvMergeModule, public fake_unknown_base {
public:
    fake_module_record(std::wstring id, std::wstring key, std::wstring name)
        : fake_unknown_base("the module record"), id(std::move(id)), key(std::move(key)), name(std::move(name)) {}
    virtual ~fake_module_record() = default;

    std::wstring id, key, name;
    HRESULT idResult = S_OK; // a failure leaves the text unset
    int idReads = 0, keyReads = 0, nameReads = 0;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        // The record's interface is its first: the same pointer as its IUnknown.
        return query(static_cast<IQvMergeModule*>(this), static_cast<IQvMergeModule*>(this), IID_IQvMergeModule, true,
                     iid, ppv);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return add_ref(); }
    ULONG STDMETHODCALLTYPE Release() override { return release(); }

    QV_FAKE_UNEXPECTED(Reserved1)
    QV_FAKE_UNEXPECTED(Reserved2)
    QV_FAKE_UNEXPECTED(Reserved3)
    QV_FAKE_UNEXPECTED(Reserved4)
    QV_FAKE_UNEXPECTED(Reserved5)
    QV_FAKE_UNEXPECTED(Reserved6)
    QV_FAKE_UNEXPECTED(Reserved7)
    QV_FAKE_UNEXPECTED(Reserved8)
    QV_FAKE_UNEXPECTED(Reserved9)

    HRESULT STDMETHODCALLTYPE get_ModuleId(BSTR* pVal) override {
        ++idReads;
        if (FAILED(idResult))
            return idResult;
        *pVal = alloc_bstr(id);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ModuleKey(BSTR* pVal) override {
        ++keyReads;
        *pVal = alloc_bstr(key);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ModuleName(BSTR* pVal) override {
        ++nameReads;
        *pVal = alloc_bstr(name);
        return S_OK;
    }
};

// The catalog. FindMergeModule answers from `answers` by file key; a key not there is an unexpected call
// unless answerUnknownKeys says it is simply not in any module. GetMissingMergeModuleKey answers from
// `missingKeys` by path, GetMissingMergeModuleSubject from `subjects` by key, each an unexpected call for a
// text not there. With offersCatalog false the object lacks the catalog interface altogether.
class fake_catalog : public IQvMergeModuleCatalog, public fake_unknown_base {
public:
    struct answer {
        HRESULT hr = S_OK;
        IUnknown* module = nullptr; // handed out with a reference of its own
        VARIANT_BOOL found = VARIANT_FALSE;
    };
    struct lookup {
        std::wstring fileKey, version, language;
        bool outputsCleared; // both outputs were null and 0 on entry
    };

    explicit fake_catalog(bool offersCatalog = true)
        : fake_unknown_base("the catalog"), m_identity(this), m_offers(offersCatalog) {}
    virtual ~fake_catalog() = default;

    std::map<std::wstring, answer> answers;
    bool answerUnknownKeys = false;
    std::map<std::wstring, std::wstring> missingKeys; // path -> key
    std::map<std::wstring, std::wstring> subjects;    // key -> subject
    HRESULT missingKeyResult = S_OK;                  // a failure answers before the map is read
    HRESULT subjectResult = S_OK;

    std::vector<lookup> lookups;
    std::vector<std::wstring> keyRequests;     // GetMissingMergeModuleKey arguments
    std::vector<std::wstring> subjectRequests; // GetMissingMergeModuleSubject arguments

    // The object's IUnknown, which is not its catalog interface: a caller must ask for the one it means.
    IUnknown* identity() { return &m_identity; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        return query(&m_identity, static_cast<IQvMergeModuleCatalog*>(this), IID_IQvMergeModuleCatalog, m_offers, iid,
                     ppv);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return add_ref(); }
    ULONG STDMETHODCALLTYPE Release() override { return release(); }

    QV_FAKE_UNEXPECTED(Reserved1)
    QV_FAKE_UNEXPECTED(Reserved2)
    QV_FAKE_UNEXPECTED(Reserved3)
    QV_FAKE_UNEXPECTED(Reserved4)
    QV_FAKE_UNEXPECTED(Reserved5)
    QV_FAKE_UNEXPECTED(Reserved6)
    QV_FAKE_UNEXPECTED(Reserved7)
    QV_FAKE_UNEXPECTED(Reserved8)
    QV_FAKE_UNEXPECTED(Reserved9)
    QV_FAKE_UNEXPECTED(Reserved10)
    QV_FAKE_UNEXPECTED(Reserved11)
    QV_FAKE_UNEXPECTED(Reserved12)
    QV_FAKE_UNEXPECTED(Reserved13)
    QV_FAKE_UNEXPECTED(Reserved14)

    HRESULT STDMETHODCALLTYPE FindMergeModule(BSTR fileKey, BSTR version, BSTR language, IUnknown** ppModule,
                                              VARIANT_BOOL* pbFound) override {
        if (!m_offers)
            ADD_FAILURE() << "a catalog without the interface was called";
        lookups.push_back({bstr_text(fileKey), bstr_text(version), bstr_text(language),
                           ppModule && pbFound && !*ppModule && *pbFound == 0});
        auto it = answers.find(bstr_text(fileKey));
        if (it == answers.end()) {
            if (!answerUnknownKeys)
                ADD_FAILURE() << "unexpected lookup of " << testing::PrintToString(bstr_text(fileKey));
            return S_OK;
        }
        const answer& a = it->second;
        if (a.module && ppModule) {
            a.module->AddRef();
            *ppModule = a.module;
        }
        if (pbFound)
            *pbFound = a.found;
        return a.hr;
    }
    HRESULT STDMETHODCALLTYPE GetMissingMergeModuleKey(BSTR bstrSource, BSTR* bstrMMKey) override {
        keyRequests.push_back(bstr_text(bstrSource));
        if (FAILED(missingKeyResult))
            return missingKeyResult;
        auto it = missingKeys.find(bstr_text(bstrSource));
        if (it == missingKeys.end()) {
            ADD_FAILURE() << "unexpected key request for " << testing::PrintToString(bstr_text(bstrSource));
            return E_UNEXPECTED;
        }
        *bstrMMKey = alloc_bstr(it->second);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetMissingMergeModuleSubject(BSTR bstrMMKey, BSTR* bstrMMSubject) override {
        subjectRequests.push_back(bstr_text(bstrMMKey));
        if (FAILED(subjectResult))
            return subjectResult;
        auto it = subjects.find(bstr_text(bstrMMKey));
        if (it == subjects.end()) {
            ADD_FAILURE() << "unexpected subject request for " << testing::PrintToString(bstr_text(bstrMMKey));
            return E_UNEXPECTED;
        }
        *bstrMMSubject = alloc_bstr(it->second);
        return S_OK;
    }

private:
    struct identity_part : IUnknown {
        explicit identity_part(fake_catalog* owner) : m_owner(owner) {}
        virtual ~identity_part() = default;
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
            return m_owner->QueryInterface(iid, ppv);
        }
        ULONG STDMETHODCALLTYPE AddRef() override { return m_owner->AddRef(); }
        ULONG STDMETHODCALLTYPE Release() override { return m_owner->Release(); }
        fake_catalog* m_owner;
    };

    identity_part m_identity;
    bool m_offers;
};

#undef QV_FAKE_UNEXPECTED

} // namespace qv::test
