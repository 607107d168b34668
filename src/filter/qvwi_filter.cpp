#include "filter/qvwi_filter.h"

#include "inc/com_error.h"
#include "inc/unique_handles.h"

#include "companions.h"
#include "siblings/sibling_module_cache.h"
#include "toolkit/path_helpers.h"
#include "toolkit/xml_loader.h"

#include <cwctype>
#include <string_view>

namespace {

constexpr wchar_t kFiltersFile[] = L"filters.xml";
constexpr std::wstring_view kNativeImageSuffix = L".ni.dll";

bool EndsWith(const std::wstring& text, std::wstring_view suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The last reading of filters.xml in this process.
SRWLOCK g_listsLock = SRWLOCK_INIT;
std::shared_ptr<const filter_lists> g_lists;

// The name attributes of the File elements of every list element of that name, as the query compares them.
void ReadNames(IXMLDOMDocument2* document, const wchar_t* list, std::unordered_set<std::wstring>& names) {
    qv::com_ptr<IXMLDOMNodeList> nodes;
    check_hr(document->selectNodes(qv::bstr(std::wstring(L"//") + list + L"/File").get(), nodes.put()));
    long count = 0;
    check_hr(nodes->get_length(&count));
    for (long i = 0; i < count; ++i) {
        qv::com_ptr<IXMLDOMNode> node;
        check_hr(nodes->get_item(i, node.put()));
        qv::com_ptr<IXMLDOMElement> element;
        if (!node || FAILED(node->QueryInterface(IID_IXMLDOMElement, element.put_void())))
            continue;
        qv::unique_variant value;
        if (element->getAttribute(qv::bstr(L"name").get(), value.get()) == S_OK && V_VT(value.get()) == VT_BSTR)
            names.emplace(V_BSTR(value.get()), SysStringLen(V_BSTR(value.get())));
    }
}

// The lists of the file at path: the process's reading while the file is unchanged, else a new one.
std::shared_ptr<const filter_lists> ReadLists(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    const bool known = GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) &&
                       !(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
    const ULONGLONG size = (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    if (known) {
        AcquireSRWLockShared(&g_listsLock);
        std::shared_ptr<const filter_lists> last = g_lists;
        ReleaseSRWLockShared(&g_listsLock);
        if (last && last->size == size && CompareFileTime(&last->written, &data.ftLastWriteTime) == 0 &&
            qv::EqualNoCase(last->path, path))
            return last;
    }
    // Not read before, changed, or not there: the parser decides, and tells what is wrong.
    const qv::com_ptr<IXMLDOMDocument2> document = LoadXml(path);
    auto lists = std::make_shared<filter_lists>();
    ReadNames(document.get(), L"Include", lists->include);
    ReadNames(document.get(), L"Exclude", lists->exclude);
    if (!known)
        return lists;
    lists->path = path;
    lists->size = size;
    lists->written = data.ftLastWriteTime;
    AcquireSRWLockExclusive(&g_listsLock);
    g_lists = lists;
    ReleaseSRWLockExclusive(&g_listsLock);
    return lists;
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
    m_lists = ReadLists(path);
    m_pDoc.reset();
}

bool CQVWIFilter::Filter(const std::wstring& name, bool& bInFilterList) {
    bool bFilter = false;
    Match(name, bInFilterList, bFilter);
    return bFilter;
}

bool CQVWIFilter::Listed(const wchar_t* list, const std::wstring& name) {
    // The sets answer as the query does for every name but one with a double quote, which breaks it.
    if (name.find(L'"') == std::wstring::npos) {
        const auto& names = std::wstring_view(list) == L"Include" ? m_lists->include : m_lists->exclude;
        return names.count(name) != 0;
    }
    if (!m_pDoc)
        m_pDoc = LoadXml(qv::JoinPath(GetSupportDir(), kFiltersFile));
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
    if (!m_lists)
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
