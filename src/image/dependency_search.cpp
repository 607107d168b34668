#include "image/dependency_search.h"

#include "format/pe/pe_layout.h"
#include "image/pe_images.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

namespace {

// The machine test of a candidate: whether it is no usable image (taken at once) or an image of the
// machine asked for (0 takes any). What is no file on disk (a device, a pipe) is never taken; an image of
// another machine is told to passedOver.
bool TakesCandidate(const std::wstring& candidate, DWORD machine, std::vector<passed_over>* passedOver) {
    const auto facts = ImageFacts(candidate);
    if (facts->openStatus == CFileView::OpenNotDisk)
        return false;
    if (machine == 0 || !facts->usable || facts->machine == machine)
        return true;
    if (passedOver)
        passedOver->push_back({candidate, facts->machine});
    return false;
}

} // namespace

bool FindDependency(const std::wstring& root, const std::wstring& name, DWORD machine, std::wstring& result,
                    const std::wstring* current, std::vector<passed_over>* passedOver) {
    // A device name is no file on disk in any folder: it is missing, and nothing is opened for it.
    if (name.empty() || qv::IsDeviceName(name))
        return false;

    const std::wstring& systemFolder = qv::SystemFolder();
    const std::wstring& nativeFolder = qv::SysNativeFolder();
    const bool redirect = (machine == qv::pe::layout::machine::ia64 || machine == qv::pe::layout::machine::amd64) &&
                          !nativeFolder.empty();

    auto tryFolder = [&](const std::wstring& dir) {
        std::wstring candidate = qv::JoinPath(dir, name);
        if (redirect && qv::StartsWithNoCase(candidate, systemFolder))
            candidate.replace(0, systemFolder.size(), nativeFolder);
        DWORD attributes = GetFileAttributesW(candidate.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY))
            return false;
        if (!TakesCandidate(candidate, machine, passedOver))
            return false;
        // A name that climbs ("..\\x.dll") or holds forward slashes is recorded where the file really is.
        result = qv::NormalisedPath(candidate);
        return true;
    };

    // A root given is the one folder; otherwise the current folder, then the folders of Path.
    if (!root.empty())
        return tryFolder(root);
    if (tryFolder(current ? *current : qv::CurrentDirectory()))
        return true;
    for (const auto& dir : qv::GetSearchFolders()) {
        if (tryFolder(dir))
            return true;
    }
    return false;
}
