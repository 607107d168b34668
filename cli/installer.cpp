#include "installer.h"

#include "error_text.h"
#include "format/pe/pe_image.h"
#include "linux_paths.h"
#include "merge_modules.h"
#include "options.h"
#include "inc/unique_handles.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"
#include "toolkit/version_info.h"

#include <bcrypt.h>
#include <shlobj.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <stdexcept>
#include <unordered_map>

namespace qvscan {

namespace {

std::optional<std::string> read_whole(const std::wstring& path) {
    qv::unique_hfile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!file || !GetFileSizeEx(file.get(), &size) || size.QuadPart > (1ll << 31))
        return std::nullopt;
    std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
    DWORD got = 0;
    if (!bytes.empty() &&
        (!ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr) || got != bytes.size()))
        return std::nullopt;
    return bytes;
}

DWORD machine_of(const std::wstring& path) {
    const auto bytes = read_whole(path);
    if (!bytes)
        return 0;
    const auto image = qv::pe::pe_image::open(
        qv::format::byte_span(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size()));
    return image ? image->machine() : 0;
}

bool is_token(const std::wstring& folder) {
    return !folder.empty() && (folder[0] == L'[' || folder[0] == L'<');
}

// The folder of path below base ("fr" for base\fr\x.dll), or nullopt when it is not below base.
std::optional<std::wstring> below(const std::wstring& base, const std::wstring& path) {
    const std::wstring folder = qv::DirectoryPart(path);
    std::wstring root = base;
    if (!root.empty() && root.back() != L'\\')
        root += L'\\';
    std::wstring here = folder;
    if (!here.empty() && here.back() != L'\\')
        here += L'\\';
    if (here.size() < root.size() || CompareStringOrdinal(here.c_str(), static_cast<int>(root.size()), root.c_str(),
                                                          static_cast<int>(root.size()), TRUE) != CSTR_EQUAL)
        return std::nullopt;
    std::wstring rest = here.substr(root.size());
    if (!rest.empty())
        rest.pop_back();
    return rest;
}

std::string xml(const std::wstring& text) {
    std::string out;
    for (char c : utf8(text)) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        default: out += c;
        }
    }
    return out;
}

// Text for inside a comment, which may not hold "--".
std::string comment(const std::wstring& text) {
    std::string out = xml(text);
    for (size_t at; (at = out.find("--")) != std::string::npos;)
        out.replace(at, 2, "- -");
    return out;
}

// An identifier of WiX: a letter and the first 16 hex digits of the text's GUID.
std::string wix_id(char kind, const std::wstring& text) {
    std::wstring guid = name_guid(text);
    guid.erase(std::remove(guid.begin(), guid.end(), L'-'), guid.end());
    return std::string(1, kind) + utf8(guid.substr(0, 16));
}

// The standard folder a token stands for, and whether it has a 64-bit twin.
std::string standard_folder(const std::wstring& token, bool x64) {
    const std::wstring t = qv::LowerCase(token);
    if (t == L"[systemfolder]" || t == L"<winsysdir>")
        return x64 ? "System64Folder" : "SystemFolder";
    if (t == L"[windowsfolder]" || t == L"<windir>")
        return "WindowsFolder";
    if (t == L"[commonfilesfolder]" || t == L"<commonfiles>")
        return x64 ? "CommonFiles64Folder" : "CommonFilesFolder";
    if (t == L"[programfilesfolder]" || t == L"<programfiles>")
        return x64 ? "ProgramFiles64Folder" : "ProgramFilesFolder";
    return "INSTALLFOLDER";
}

std::vector<std::wstring> components(const std::wstring& path) {
    std::vector<std::wstring> parts;
    size_t from = 0;
    while (from <= path.size()) {
        size_t end = path.find_first_of(L"\\/", from);
        if (end == std::wstring::npos)
            end = path.size();
        if (end > from)
            parts.push_back(path.substr(from, end - from));
        from = end + 1;
    }
    return parts;
}

// The directories of the source: children by parent identifier, each with its name.
struct directory_tree {
    std::map<std::string, std::vector<std::pair<std::string, std::wstring>>> children; // id -> (child id, name)
    std::map<std::string, std::vector<std::string>> files;                              // id -> component XML

    // The identifier of root\parts..., made as needed.
    std::string at(const std::string& root, const std::vector<std::wstring>& parts) {
        std::string id = root;
        std::wstring path = wide(root);
        for (const std::wstring& part : parts) {
            path += L"\\" + qv::LowerCase(part);
            const std::string child = wix_id('D', path);
            auto& list = children[id];
            if (std::none_of(list.begin(), list.end(), [&](const auto& c) { return c.first == child; }))
                list.push_back({child, part});
            id = child;
        }
        return id;
    }
    void write(std::string& out, const std::string& id, int depth) const {
        const std::string pad(2 * depth, ' ');
        if (const auto f = files.find(id); f != files.end())
            for (const std::string& component : f->second)
                for (size_t at = 0; at < component.size();) { // each line indented by the folder's depth
                    const size_t end = component.find('\n', at) + 1;
                    out += pad + component.substr(at, end - at);
                    at = end;
                }
        if (const auto c = children.find(id); c != children.end())
            for (const auto& [child, name] : c->second) {
                out += pad + "<Directory Id=\"" + child + "\" Name=\"" + xml(name) + "\">\n";
                write(out, child, depth + 1);
                out += pad + "</Directory>\n";
            }
    }
};

} // namespace

std::wstring name_guid(const std::wstring& text) {
    // The tool's namespace, then the text as UTF-8, hashed with SHA-1; version 5 and the RFC's variant bits.
    static const unsigned char space[16] = {0x6b, 0x2f, 0x51, 0x0e, 0x93, 0x4a, 0x4c, 0x1d,
                                            0x8e, 0x05, 0x7d, 0x3a, 0x61, 0xc2, 0x9f, 0x40};
    std::string data(reinterpret_cast<const char*>(space), 16);
    data += utf8(text);
    unsigned char hash[20] = {};
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hashing = nullptr;
    const qv::scope_exit close([&] {
        if (hashing)
            BCryptDestroyHash(hashing);
        if (algorithm)
            BCryptCloseAlgorithmProvider(algorithm, 0);
    });
    if (!BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA1_ALGORITHM, nullptr, 0)) ||
        !BCRYPT_SUCCESS(BCryptCreateHash(algorithm, &hashing, nullptr, 0, nullptr, 0, 0)) ||
        !BCRYPT_SUCCESS(BCryptHashData(hashing, reinterpret_cast<PUCHAR>(data.data()), static_cast<ULONG>(data.size()), 0)) ||
        !BCRYPT_SUCCESS(BCryptFinishHash(hashing, hash, 20, 0)))
        throw std::runtime_error("the system's SHA-1 is not available");
    hash[6] = static_cast<unsigned char>((hash[6] & 0x0F) | 0x50);
    hash[8] = static_cast<unsigned char>((hash[8] & 0x3F) | 0x80);
    wchar_t guid[40];
    std::swprintf(guid, 40, L"%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", hash[0], hash[1],
                  hash[2], hash[3], hash[4], hash[5], hash[6], hash[7], hash[8], hash[9], hash[10], hash[11], hash[12],
                  hash[13], hash[14], hash[15]);
    return guid;
}

package_plan plan_package(const std::vector<std::wstring>& mainFiles, const std::vector<record>& records,
                          bool keepDestinations) {
    package_plan plan;
    if (mainFiles.empty())
        return plan;
    plan.mainFile = mainFiles[0];
    plan.machine = machine_of(plan.mainFile);
    const std::wstring base = qv::DirectoryPart(plan.mainFile);
    std::unordered_map<std::wstring, size_t> placed; // folder\name in lower case -> index in files
    auto place = [&](shipped_file file) {
        const std::wstring key = qv::LowerCase(file.folder + L"\\" + file.name);
        const auto [it, added] = placed.try_emplace(key, plan.files.size());
        if (added) {
            plan.files.push_back(std::move(file));
            return;
        }
        const shipped_file& first = plan.files[it->second];
        if (lstrcmpiW(first.source.c_str(), file.source.c_str()) != 0 && read_whole(first.source) != read_whole(file.source))
            plan.passedOver.push_back(file.source);
    };
    for (const std::wstring& main : mainFiles)
        place({main, qv::FileNamePart(main), below(base, main).value_or(L""), false, false, true});
    for (const record& r : records) {
        if (r.mergeModule && r.missing) {
            plan.missing.push_back(r.name + L" (a merge module the catalog lacks)");
        } else if (r.mergeModule) {
            if (std::none_of(plan.mergeModules.begin(), plan.mergeModules.end(),
                             [&](const auto& m) { return m.name == r.name; }))
                plan.mergeModules.push_back({r.name, r.path});
        } else if (r.missing) {
            if (std::find(plan.missing.begin(), plan.missing.end(), r.name) == plan.missing.end())
                plan.missing.push_back(r.name);
        } else if (!r.filterable && !r.providedBy && !r.path.empty()) {
            const std::wstring source = qv::JoinPath(r.path, r.name);
            std::wstring folder = below(base, source).value_or(L"");
            if (keepDestinations && is_token(r.destPath))
                folder = r.destPath;
            place({source, r.name, folder, r.shared, r.selfRegistering, false});
        }
    }
    return plan;
}

std::vector<std::wstring> copy_bundle(const package_plan& plan, const std::wstring& folder, bool force) {
    std::vector<std::wstring> left;
    for (const shipped_file& file : plan.files) {
        std::wstring sub = file.folder;
        if (is_token(sub)) // a folder of the system, kept under its token's name
            sub = std::wstring(L"_") + sub.substr(1, sub.find_first_of(L"]>") - 1) +
                  sub.substr(std::min(sub.size(), sub.find_first_of(L"]>") + 1));
        const std::wstring dir = sub.empty() ? folder : qv::JoinPath(folder, sub);
        const int made = SHCreateDirectoryExW(nullptr, dir.c_str(), nullptr);
        if (made != ERROR_SUCCESS && made != ERROR_ALREADY_EXISTS && made != ERROR_FILE_EXISTS)
            throw std::runtime_error("cannot make the folder " + utf8(dir) + ": " + describe(HRESULT_FROM_WIN32(made)));
        const std::wstring target = qv::JoinPath(dir, file.name);
        if (GetFileAttributesW(target.c_str()) != INVALID_FILE_ATTRIBUTES) {
            if (read_whole(target) == read_whole(file.source))
                continue;
            if (!force) {
                left.push_back(target);
                continue;
            }
        }
        if (!CopyFileW(file.source.c_str(), target.c_str(), FALSE))
            throw std::runtime_error("cannot copy " + utf8(file.source) + " to " + utf8(target) + ": " +
                                     describe(HRESULT_FROM_WIN32(GetLastError())));
    }
    return left;
}

std::string wix_source(const package_plan& plan, const product_texts& product, bool noMergeModules) {
    const bool x64 = plan.machine == 0x8664 || plan.machine == 0xAA64;
    const qv::version_info info(plan.mainFile);
    auto from_resource = [&info](const char* name, const std::wstring& fallback) {
        std::wstring text = info.GetString(name) ? info.GetString(name) : L"";
        text.erase(0, text.find_first_not_of(L" \t"));
        text.erase(text.find_last_not_of(L" \t") + 1);
        return text.empty() ? fallback : text; // compilers write a blank where nobody gave a name
    };
    std::wstring stem = qv::FileNamePart(plan.mainFile);
    stem = stem.substr(0, stem.find_last_of(L'.'));
    const std::wstring name = !product.name.empty() ? product.name : from_resource("ProductName", stem);
    const std::wstring maker = !product.manufacturer.empty() ? product.manufacturer
                                                             : from_resource("CompanyName", L"Unknown manufacturer");
    std::wstring version = product.version;
    if (version.empty()) {
        version = info.dwSignature ? std::to_wstring(HIWORD(info.dwFileVersionMS)) + L"." +
                                         std::to_wstring(LOWORD(info.dwFileVersionMS)) + L"." +
                                         std::to_wstring(HIWORD(info.dwFileVersionLS))
                                   : L"1.0.0";
    }
    const std::wstring product_key = qv::LowerCase(name);
    directory_tree tree;
    std::string refs;
    const std::string win64 = x64 ? " Win64=\"yes\"" : "";
    for (const shipped_file& file : plan.files) {
        std::string root = "INSTALLFOLDER";
        std::wstring rest = file.folder;
        if (is_token(file.folder)) {
            const size_t end = file.folder.find_first_of(L"]>");
            root = standard_folder(file.folder.substr(0, end + 1), x64);
            rest = file.folder.substr(end + 1);
        }
        const std::string dir = tree.at(root, components(rest));
        const std::wstring key = product_key + L"|" + qv::LowerCase(file.folder) + L"|" + qv::LowerCase(file.name);
        const std::string id = wix_id('C', key).substr(1);
        std::string component = "<Component Id=\"C" + id + "\" Guid=\"" + utf8(name_guid(key)) + "\"" + win64 +
                                (file.shared ? " SharedDllRefCount=\"yes\"" : "") + ">\n";
        component += "  <File Id=\"F" + id + "\" Name=\"" + xml(file.name) + "\" Source=\"" + xml(product.linuxSources ? to_linux(file.source) : file.source) +
                     "\" KeyPath=\"yes\"" + (file.selfRegistering ? " SelfRegCost=\"0\"" : "") + "/>\n</Component>\n";
        tree.files[dir].push_back(component);
        refs += "      <ComponentRef Id=\"C" + id + "\"/>\n";
    }
    std::string modules, merges;
    for (const auto& module : plan.mergeModules) {
        if (noMergeModules) {
            modules += "    <!-- merge module left out: " + comment(module.name) + " (" + comment(module.file) + ") -->\n";
            continue;
        }
        const std::string id = wix_id('M', L"module|" + qv::LowerCase(module.file));
        std::wstring file = product.mergeModuleFolder.empty() ? module.file
                                                              : qv::JoinPath(product.mergeModuleFolder, module.file);
        if (product.linuxSources)
            file = to_linux(file);
        tree.files["INSTALLFOLDER"].push_back("<Merge Id=\"" + id + "\" SourceFile=\"" + xml(file) +
                                              "\" DiskId=\"1\" Language=\"0\"/>\n");
        merges += "      <MergeRef Id=\"" + id + "\"/>\n";
    }
    for (const std::wstring& missing : plan.missing)
        modules += "    <!-- missing, nothing ships it: " + comment(missing) + " -->\n";
    for (const std::wstring& other : plan.passedOver)
        modules += "    <!-- another file of a shipped name, left out: " + comment(other) + " -->\n";

    std::string out = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                      "<!-- Made by qvscan from the closure of " + comment(qv::FileNamePart(plan.mainFile)) + " -->\n"
                      "<Wix xmlns=\"http://schemas.microsoft.com/wix/2006/wi\">\n"
                      "  <Product Id=\"*\" Name=\"" + xml(name) + "\" Manufacturer=\"" + xml(maker) + "\" Version=\"" +
                      xml(version) + "\" Language=\"1033\" UpgradeCode=\"" + utf8(name_guid(L"upgrade|" + product_key)) +
                      "\">\n"
                      "    <Package InstallerVersion=\"200\" Compressed=\"yes\" InstallScope=\"perMachine\"" +
                      (x64 ? " Platform=\"x64\"" : "") + "/>\n"
                      "    <Media Id=\"1\" Cabinet=\"product.cab\" EmbedCab=\"yes\"/>\n" + modules +
                      "    <Directory Id=\"TARGETDIR\" Name=\"SourceDir\">\n";
    // The application's folder under Program Files; the other standard folders beside it.
    const std::string programs = x64 ? "ProgramFiles64Folder" : "ProgramFilesFolder";
    std::vector<std::string> roots{programs};
    for (const auto& [id, list] : tree.children)
        if (id != "INSTALLFOLDER" && id[0] != 'D' && id != programs)
            roots.push_back(id);
    for (const auto& [id, list] : tree.files)
        if (id != "INSTALLFOLDER" && id[0] != 'D' && std::find(roots.begin(), roots.end(), id) == roots.end())
            roots.push_back(id);
    for (const std::string& root : roots) {
        out += "      <Directory Id=\"" + root + "\">\n";
        if (root == programs) {
            out += "        <Directory Id=\"INSTALLFOLDER\" Name=\"" + xml(name) + "\">\n";
            tree.write(out, "INSTALLFOLDER", 5);
            out += "        </Directory>\n";
        }
        tree.write(out, root, 4);
        out += "      </Directory>\n";
    }
    out += "    </Directory>\n    <Feature Id=\"Complete\" Level=\"1\">\n" + refs + merges + "    </Feature>\n";
    // What the scan cannot know, written by the product's author. A processing instruction takes its text as it
    // stands (no entities); a path cannot hold the "?>" that would end it.
    if (!product.include.empty())
        out += "    <?include " + utf8(product.linuxSources ? to_linux(product.include) : product.include) + " ?>\n";
    out += "  </Product>\n</Wix>\n";
    return out;
}

void write_whole_file(const std::wstring& path, const std::string& text) {
    const std::wstring temporary = path + L".qvscan-partial";
    {
        qv::unique_hfile file(CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        DWORD written = 0;
        const bool ok = file && WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
                        written == text.size() && FlushFileBuffers(file.get());
        if (!ok) {
            const DWORD error = GetLastError();
            file.reset();
            DeleteFileW(temporary.c_str());
            throw std::runtime_error("cannot write " + utf8(path) + ": " + describe(HRESULT_FROM_WIN32(error)));
        }
    }
    if (!MoveFileExW(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        const DWORD error = GetLastError();
        DeleteFileW(temporary.c_str());
        throw std::runtime_error("cannot write " + utf8(path) + ": " + describe(HRESULT_FROM_WIN32(error)));
    }
}

// --wxs: the WiX source of the plan, written whole; what it cannot hold said on standard error.
void write_wxs(const package_plan& plan, const options& o) {
    if (o.wxsFile.empty() || plan.mainFile.empty())
        return;
    write_whole_file(full_path(o.wxsFile),
                     wix_source(plan, {o.productName, o.manufacturer, o.productVersion, o.linuxSources, merge_module_folder(o),
                                       o.wxsInclude.empty() ? std::wstring() : full_path(o.wxsInclude)},
                                o.noMergeModules));
    for (const std::wstring& name : plan.missing)
        err("qvscan: the installer source names " + utf8(name) + " as missing: nothing ships it\n");
    for (const std::wstring& other : plan.passedOver)
        err("qvscan: " + utf8(other) + " has the name of a file already shipped and is left out\n");
    if (o.noMergeModules)
        for (const auto& module : plan.mergeModules)
            err("qvscan: the merge module " + utf8(module.name) + " is left out of the installer source\n");
}

} // namespace qvscan
