#include "traits/settings_document.h"

#include "companions.h"
#include "inc/com_error.h"
#include "inc/unique_handles.h"
#include "siblings/sibling_module_cache.h"
#include "toolkit/xml_loader.h"

namespace qv {

namespace {

exclusion_set s_ExclusionList;
bool s_ExclusionListLoaded = false;

constexpr long kSettingsDocument = 8; // the selector of GetPath

// The "Path" attribute of node; empty when the node has no attributes or no such attribute.
std::wstring PathOf(IXMLDOMNode* node) {
    com_ptr<IXMLDOMNamedNodeMap> attributes;
    com_ptr<IXMLDOMNode> path;
    unique_variant value;
    if (node->get_attributes(attributes.put()) != S_OK || !attributes ||
        attributes->getNamedItem(bstr(L"Path").get(), path.put()) != S_OK || !path)
        return {};
    check_hr(path->get_nodeValue(value.get()));
    return V_VT(value.get()) == VT_BSTR && V_BSTR(value.get()) ? V_BSTR(value.get()) : L"";
}

} // namespace

void LoadExclusionList() {
    if (s_ExclusionListLoaded)
        return;
    s_ExclusionList.clear();
    bstr path;
    check_hr(AppServices(L"the settings document")->GetPath(kSettingsDocument, path.put()));
    const com_ptr<IXMLDOMDocument2> document = LoadXml(path.str());
    com_ptr<IXMLDOMNodeList> lists;
    check_hr(document->selectNodes(bstr(L"Halyard/Scanners/DotNetExclusionList").get(), lists.put()));
    for (com_ptr<IXMLDOMNode> list; lists->nextNode(list.put()) == S_OK && list;) {
        com_ptr<IXMLDOMNodeList> children;
        check_hr(list->get_childNodes(children.put()));
        for (com_ptr<IXMLDOMNode> child; children->nextNode(child.put()) == S_OK && child;)
            s_ExclusionList.insert(PathOf(child.get()));
    }
    s_ExclusionListLoaded = true;
}

const exclusion_set& ExclusionList() {
    return s_ExclusionList;
}

} // namespace qv
