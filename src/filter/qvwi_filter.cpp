#include "filter/qvwi_filter.h"

#include "inc/com_error.h"

#include "companions.h"
#include "dotnet/sibling_module_cache.h"
#include "filter/xml_loader.h"
#include "toolkit/path_helpers.h"

#include <cwctype>
#include <string_view>

namespace {

constexpr wchar_t kFiltersFile[] = L"filters.xml";
constexpr std::wstring_view kNativeImageSuffix = L".ni.dll";

bool EndsWith(const std::wstring& text, std::wstring_view suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

} // namespace

const std::wstring& CQVWIFilter::GetSupportDir() {
    if (m_sSupportDir.empty()) {
        qv::bstr folder;
        check_hr(AppServices(kFiltersFile)->GetSupportFolder(folder.put()));
        m_sSupportDir = folder.str();
    }
    return m_sSupportDir;
}

void CQVWIFilter::Initialize() {
    const std::wstring path = qv::JoinPath(GetSupportDir(), kFiltersFile);
    m_pDoc = LoadXml(path);
}

bool CQVWIFilter::Filter(const std::wstring& name, bool& bInFilterList) {
    bool bFilter = false;
    Match(name, bInFilterList, bFilter);
    return bFilter;
}

bool CQVWIFilter::Listed(const wchar_t* list, const std::wstring& name) {
    // No escaping: the name goes into the query as it is.
    const std::wstring query = std::wstring(L"//") + list + L"/File[@name=\"" + name + L"\"]";
    qv::com_ptr<IXMLDOMNode> node;
    HRESULT hr = m_pDoc->selectSingleNode(qv::bstr(query).get(), node.put());
    if (FAILED(hr))
        qv::throw_described(hr, L"the filter cannot look up the file name " + name + L": the query " + query +
                                    L" is not valid");
    return static_cast<bool>(node);
}

bool CQVWIFilter::Match(const std::wstring& name, bool& bInFilterList, bool& bFilter) {
    bInFilterList = false;
    bFilter = false;
    if (!m_pDoc)
        throw com_exception(E_UNEXPECTED); // SetFiltering was never called
    // The name as a C string: text after an embedded null character never reaches the query.
    std::wstring n(name.c_str());
    for (wchar_t& c : n)
        c = static_cast<wchar_t>(towlower(c));

    if (Listed(L"Include", n))
        return false;
    bool listed = Listed(L"Exclude", n);
    if (!listed && EndsWith(n, kNativeImageSuffix)) {
        std::wstring n2 = n;
        n2.replace(n2.find(kNativeImageSuffix), kNativeImageSuffix.size(), L".dll");
        if (Listed(L"Include", n2))
            return false;
        listed = Listed(L"Exclude", n2);
    }
    if (!listed)
        return false;
    bFilter = m_bFiltering;
    bInFilterList = true;
    return true;
}
