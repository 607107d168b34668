// qvscan: the command-line host of the scanners. A plain COM client of QVWIScanners.dll, which it loads
// by path from its own folder (or QV_SERVER_DLL) and reaches through DllGetClassObject: no registration.
//
//   qvscan static FILE|FOLDER... [--lang TEXT] [--type N] [--no-filter] [--json]
//   qvscan pe FILE [--json]
//   qvscan assembly FILE [--json]                                   (assembly_command.cpp)
//   qvscan vbp PROJECT.vbp|GROUP.vbg [options]                      (vbp_command.cpp)
//   qvscan trace APP [ARGS...] [options] | attach PID [options]     (trace_command.cpp)
//   qvscan register [--user] | unregister [--user]
//
// Exit codes: 0 done; 1 the scan or the server failed, or an assembly's metadata is corrupt; 2 wrong
// arguments; 3 the file does not exist, or a project scan stopped at a missing form or project; 4 the traced
// target was ended before it finished, or a project scan was cancelled.
#include "QVWIScanners.h"
#include "inc/class_registration.h"
#include "qvscan.h"
#include "text_output.h"

#include <windows.h>

#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "inc/com_error.h"
#include "inc/com_exception.h"
#include "inc/com_ptr.h"
#include "inc/unique_handles.h"
#include "toolkit/inifilex.h"
#include "toolkit/path_helpers.h"
#include "toolkit/process_launcher.h"

using namespace qvscan;

namespace qvscan {

// Lower case by the system's rules, for comparing paths.
std::wstring lower(std::wstring text) {
    if (!text.empty())
        CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

const char* const Usage =
    "usage: qvscan static FILE|FOLDER... [--lang TEXT] [--type N] [--no-filter] [--merge-modules DIR]\n"
    "                     [--json]\n"
    "       qvscan pe FILE [--json]\n"
    "       qvscan assembly FILE [--json]\n"
    "       qvscan vbp PROJECT.vbp|GROUP.vbg [--rebuild] [--dep FILE] [--lang TEXT]\n"
    "                  [--no-filter] [--keep-going] [--merge-modules DIR] [--json]\n"
    "       qvscan msm DIR [--json]\n"
    "       qvscan ini FILE [SECTION [KEY]]\n"
    "       qvscan trace APP [ARGS...] [--dir D] [--tag T] [--this-process-only] [--no-filter]\n"
    "                    [--merge-modules DIR] [--json] [--timeout S]   (after \"--\": APP's)\n"
    "       qvscan attach PID [--tag T] [--no-filter] [--json] [--timeout S]\n"
    "       qvscan setup \"COMMAND LINE\"\n"
    "       qvscan register [--user]\n"
    "       qvscan unregister [--user]\n";

std::string hex(HRESULT hr) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08lX", static_cast<unsigned long>(hr));
    return buffer;
}

std::string describe(HRESULT hr) {
    std::wstring message = qv::system_message(hr);
    while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L'.'))
        message.pop_back();
    return message.empty() ? hex(hr) : utf8(message) + " (" + hex(hr) + ")";
}

std::string failure_text(HRESULT hr) {
    const std::wstring why = qv::take_error_description();
    return why.empty() ? describe(hr) : utf8(why) + " (" + hex(hr) + ")";
}

std::wstring version_text(long major, long minor) {
    if (major == 0 && minor == 0)
        return L"";
    wchar_t buffer[64];
    std::swprintf(buffer, 64, L"%u.%u.%u.%u", HIWORD(major), LOWORD(major), HIWORD(minor), LOWORD(minor));
    return buffer;
}

std::wstring time_text(double date) {
    SYSTEMTIME st{};
    if (date == 0 || !VariantTimeToSystemTime(date, &st))
        return L"";
    wchar_t buffer[64];
    std::swprintf(buffer, 64, L"%04u-%02u-%02uT%02u:%02u:%02u", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
                  st.wSecond);
    return buffer;
}

record read_record(IDepFile* file) {
    record r;
    qv::bstr text;
    VARIANT_BOOL flag = 0;
    check_hr(file->get_Name(text.put()));
    r.name = text.str();
    check_hr(file->get_Path(text.put()));
    r.path = text.str();
    check_hr(file->get_Size(&r.size));
    check_hr(file->get_ModifiedTime(&r.modified));
    check_hr(file->get_MajorVersion(&r.major));
    check_hr(file->get_MinorVersion(&r.minor));
    check_hr(file->get_Shared(&flag));
    r.shared = flag != 0;
    check_hr(file->get_SelfRegistering(&flag));
    r.selfRegistering = flag != 0;
    qv::com_ptr<ILanguages> languages;
    if (SUCCEEDED(file->get_Languages(languages.put())) && languages) {
        long count = 0;
        languages->get_Count(&count);
        for (long i = 1; i <= count; ++i) {
            VARIANT index;
            VariantInit(&index);
            index.vt = VT_I4;
            index.lVal = i;
            long id = 0;
            if (SUCCEEDED(languages->get_Item(index, &id)))
                r.languages.push_back(id);
        }
    }
    qv::com_ptr<IDepFile> self(file);
    if (auto tarn = self.query<IDepFileTarn>(IID_IDepFileTarn)) {
        if (SUCCEEDED(tarn->GetDestPath(text.put())))
            r.destPath = text.str();
    }
    if (auto info = self.query<IDepFileInfo>(IID_IDepFileInfo)) {
        if (SUCCEEDED(info->get_IsMissing(&flag)))
            r.missing = flag != 0;
        if (SUCCEEDED(info->get_IsFilterable(&flag)))
            r.filterable = flag != 0;
        if (SUCCEEDED(info->get_IsMergeModule(&flag)))
            r.mergeModule = flag != 0;
    }
    return r;
}

std::vector<record> read_all(IDepFiles* files) {
    std::vector<record> records;
    if (!files)
        return records;
    long count = 0;
    check_hr(files->get_Count(&count));
    for (long i = 1; i <= count; ++i) {
        VARIANT index;
        VariantInit(&index);
        index.vt = VT_I4;
        index.lVal = i;
        qv::com_ptr<IDepFile> file;
        check_hr(files->get_Item(index, file.put()));
        if (file)
            records.push_back(read_record(file.get()));
    }
    return records;
}

std::string marks(const record& r) {
    std::string m;
    m += r.missing ? 'M' : '-';
    m += r.filterable ? 'F' : '-';
    m += r.mergeModule ? 'G' : '-';
    m += r.shared ? 'S' : '-';
    m += r.selfRegistering ? 'R' : '-';
    m += std::string(r.via) == "dep" ? 'D' : '-';
    return m;
}

std::string json_record(const record& r, const char* indent) {
    std::string langs;
    for (long id : r.languages)
        langs += (langs.empty() ? "" : ", ") + std::to_string(id);
    std::string s =
        std::string(indent) + "{\"name\": " + json_string(r.name) + ", \"folder\": " + json_string(r.path) +
        ", \"version\": " + json_string(version_text(r.major, r.minor)) + ", \"size\": " + std::to_string(r.size) +
        ", \"modified\": " + json_string(time_text(r.modified)) + ", \"destination\": " + json_string(r.destPath) +
        ", \"languages\": [" + langs + "]" + ", \"missing\": " + (r.missing ? "true" : "false") +
        ", \"filterable\": " + (r.filterable ? "true" : "false") +
        ", \"mergeModule\": " + (r.mergeModule ? "true" : "false") + ", \"shared\": " + (r.shared ? "true" : "false") +
        ", \"selfRegistering\": " + (r.selfRegistering ? "true" : "false") + ", \"via\": \"" + r.via + "\"}";
    return s;
}

// The name of a Unix file's component as Windows programs see it under Wine: a name that Windows cannot
// hold ('"', '*', ':', '<', '>', '?', '|', '\\') is reachable only by the short name Wine makes for it,
// which the folder's listing gives.
std::wstring windows_component(const std::wstring& folder, const std::wstring& name) {
    if (name.find_first_of(L"\"*:<>?|\\") == std::wstring::npos)
        return name;
    WIN32_FIND_DATAW data{};
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
    std::wstring result = name;
    for (bool more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &data)) {
        if (name == data.cFileName && data.cAlternateFileName[0]) {
            result = data.cAlternateFileName;
            break;
        }
    }
    if (find != INVALID_HANDLE_VALUE)
        FindClose(find);
    return result;
}

// A FILE given as a Unix path ("/home/me/app.exe") while the tool runs under Wine: the Windows path of
// the same file, of any length. Elsewhere, or for any other path, the path as it is.
std::wstring from_unix(const std::wstring& file) {
    using to_dos_fn = WCHAR*(CDECL*)(const char*);
    HMODULE kernel = GetModuleHandleW(L"kernel32");
    auto to_dos = reinterpret_cast<to_dos_fn>(
        reinterpret_cast<void (*)()>(kernel ? GetProcAddress(kernel, "wine_get_dos_file_name") : nullptr));
    if (!to_dos || file.empty() || file[0] != L'/')
        return file;
    // The longest head of plain names is Wine's to convert; the rest is added a component at a time.
    size_t head = file.size();
    for (size_t start = 1; start < file.size();) {
        size_t end = std::min(file.find(L'/', start), file.size());
        if (file.find_first_of(L"\"*:<>?|\\", start) < end) {
            head = start;
            break;
        }
        start = end + 1;
    }
    WCHAR* converted = to_dos(utf8(file.substr(0, head)).c_str());
    if (!converted)
        return file;
    std::wstring result = converted;
    HeapFree(GetProcessHeap(), 0, converted);
    for (size_t start = head; start < file.size();) {
        size_t end = std::min(file.find(L'/', start), file.size());
        if (end > start) {
            if (!result.empty() && result.back() == L'\\')
                result.pop_back();
            result += L'\\' + windows_component(result, file.substr(start, end - start));
        }
        start = end + 1;
    }
    return result;
}

// The full path of FILE (made from a Unix path first, under Wine), of any length.
std::wstring full_path(const std::wstring& given) {
    return qv::FullPath(from_unix(given));
}

bool exists(const std::wstring& path) {
    DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// Why a FILE that is not a file on disk cannot be scanned, in words: a folder, a device, or what the
// system says of it (a link that leads nowhere, say); "no such file" when it simply is not there.
std::string not_a_file(const std::wstring& path) {
    if (qv::IsDeviceName(path))
        return "is a device, not a file";
    SetLastError(0);
    DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES)
        return "is a folder, not a file";
    DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == 0)
        return "no such file";
    return describe(HRESULT_FROM_WIN32(error));
}

// The value after option argv[i], which i then points at; a usage error when there is none.
std::wstring option_value(int argc, wchar_t** argv, int& i, const char* option) {
    if (i + 1 >= argc)
        throw usage_error{std::string(option) + " needs a value"};
    return argv[++i];
}

// trace APP [ARGS...] and attach PID: the tool's options may stand anywhere before a "--"; the other
// arguments after APP, and everything after "--", are the target's.
options parse_trace(options& o, int argc, wchar_t** argv) {
    const bool trace = o.command == L"trace";
    bool rest = false;
    std::wstring target;
    for (int i = 2; i < argc; ++i) {
        std::wstring a = argv[i];
        auto value = [&](const char* name) { return option_value(argc, argv, i, name); };
        if (!rest && a == L"--") {
            rest = true;
        } else if (!rest && a == L"--json") {
            o.json = true;
        } else if (!rest && a == L"--merge-modules") {
            o.mergeModules = option_value(argc, argv, i, "--merge-modules");
        } else if (!rest && a == L"--no-filter") {
            o.filter = false;
        } else if (!rest && a == L"--tag") {
            o.tag = value("--tag");
        } else if (!rest && trace && a == L"--dir") {
            o.directory = value("--dir");
        } else if (!rest && trace && a == L"--this-process-only") {
            o.thisProcessOnly = true;
        } else if (!rest && a == L"--timeout") {
            std::wstring v = value("--timeout");
            wchar_t* end = nullptr;
            errno = 0;
            const double seconds = std::wcstod(v.c_str(), &end);
            if (v.empty() || *end || errno == ERANGE || !(seconds > 0) || seconds > 86400 * 365)
                throw usage_error{"--timeout wants a number of seconds above 0"};
            o.timeout = seconds;
        } else if (!rest && a.size() > 1 && a[0] == L'-' && target.empty()) {
            throw usage_error{"unknown option '" + utf8(a) + "' for " + utf8(o.command)};
        } else if (target.empty()) {
            target = a;
        } else if (trace) {
            o.arguments.push_back(a);
        } else {
            throw usage_error{"unexpected argument '" + utf8(a) + "'"};
        }
    }
    if (target.empty())
        throw usage_error{trace ? "trace needs an APP to run" : "attach needs the ID of a running process"};
    if (trace) {
        o.file = target;
    } else {
        wchar_t* end = nullptr;
        errno = 0;
        const unsigned long long id = std::wcstoull(target.c_str(), &end, 0);
        if (*end || errno == ERANGE || id == 0 || id > 0xFFFFFFFFull || target[0] == L'-')
            throw usage_error{"attach wants a process ID, not '" + utf8(target) + "'"};
        o.processId = static_cast<DWORD>(id);
    }
    return o;
}

options parse(int argc, wchar_t** argv) {
    options o;
    if (argc < 2)
        throw usage_error{"no command given"};
    o.command = argv[1];
    if (o.command == L"-h" || o.command == L"--help" || o.command == L"help")
        throw usage_error{""};
    const bool scans = o.command == L"static" || o.command == L"pe" || o.command == L"assembly" ||
                       o.command == L"ini" || o.command == L"vbp" || o.command == L"msm";
    const bool project = o.command == L"vbp";
    const bool registers = o.command == L"register" || o.command == L"unregister";
    if (o.command == L"setup") {
        if (argc != 3 || !*argv[2])
            throw usage_error{"setup needs one COMMAND LINE (quote it)"};
        o.file = argv[2];
        return o;
    }
    if (o.command == L"trace" || o.command == L"attach")
        return parse_trace(o, argc, argv);
    if (!scans && !registers)
        throw usage_error{"unknown command '" + utf8(o.command) + "'"};
    for (int i = 2; i < argc; ++i) {
        std::wstring a = argv[i];
        auto value = [&](const char* name) { return option_value(argc, argv, i, name); };
        if (o.command != L"ini" && scans && a == L"--json") {
            o.json = true;
        } else if ((o.command == L"static" || project) && a == L"--lang") {
            o.lang = value("--lang");
            if (o.lang.size() > 64)
                throw usage_error{"--lang wants a language of a .dep file (such as 0409 or enu), not " +
                                  std::to_string(o.lang.size()) + " characters"};
        } else if (o.command == L"static" && a == L"--type") {
            std::wstring v = value("--type");
            wchar_t* end = nullptr;
            errno = 0;
            long long n = std::wcstoll(v.c_str(), &end, 0);
            // The scan mode in the low bits (0, 1 or 2), and 32768 to leave the merge-module catalog out.
            if (v.empty() || *end != L'\0' || errno == ERANGE || n < 0 || n > 32770 || (n & 32767) > 2)
                throw usage_error{"--type wants 0, 1 or 2, optionally with 32768 added"};
            o.type = static_cast<long>(n);
        } else if ((o.command == L"static" || project) && a == L"--merge-modules") {
            o.mergeModules = value("--merge-modules");
        } else if ((o.command == L"static" || project) && a == L"--no-filter") {
            o.filter = false;
        } else if (project && a == L"--dep") {
            o.depFile = value("--dep");
        } else if (project && a == L"--rebuild") {
            o.rebuild = true;
        } else if (project && a == L"--keep-going") {
            o.keepGoing = true;
        } else if (registers && a == L"--user") {
            o.user = true;
        } else if (a.size() > 1 && a[0] == L'-') {
            throw usage_error{"unknown option '" + utf8(a) + "' for " + utf8(o.command)};
        } else if (scans && o.file.empty()) {
            o.file = a;
        } else if (o.command == L"static") {
            o.names.push_back(a); // more files or folders

        } else if (o.command == L"ini" && o.names.size() < 2) {
            o.names.push_back(a);
        } else {
            throw usage_error{"unexpected argument '" + utf8(a) + "'"};
        }
    }
    if (scans && o.file.empty())
        throw usage_error{project ? "vbp needs a PROJECT (.vbp) or GROUP (.vbg)" : utf8(o.command) + " needs a FILE"};
    return o;
}

// The outcome of one top-level file's scan.
struct static_result {
    std::wstring file;
    bool present = false;
    VARIANT_BOOL completed = VARIANT_FALSE;
    HRESULT hr = S_OK;
    std::string failure; // the words for a failed scan
    std::vector<record> records;
    long filesMet = 0;
    size_t missing = 0, filterable = 0, modules = 0;
};

static_result scan_static(IStaticScan* scan, const std::wstring& file, const options& o, IUnknown* catalog) {
    static_result r;
    r.file = file;
    r.present = exists(file);
    progress_sink sink;
    sink.catalog = catalog;
    qv::bstr path(file), lang(o.lang);
    try {
        r.hr = scan->ScanFile(path.get(), &sink, o.filter ? VARIANT_TRUE : VARIANT_FALSE, lang.get(),
                              static_cast<EScanType>(o.type), &r.completed);
    } catch (const com_exception& e) {
        r.hr = e.Error();
    } catch (const qv::win32_exception& e) {
        r.hr = e.Result();
    }
    sink.clear();
    r.filesMet = sink.files;
    if (FAILED(r.hr)) {
        // The server says in words what went wrong where it can (a list it cannot load, say).
        r.failure = failure_text(r.hr);
        return r;
    }
    qv::com_ptr<IDepFiles> files;
    check_hr(scan->get_Dependencies(files.put()));
    r.records = read_all(files.get());
    // The import walk announces every file it names; a record it never named came from a .dep file.
    for (record& x : r.records) {
        const std::wstring full = x.path.empty() ? x.name : x.path + (x.path.back() == L'\\' ? L"" : L"\\") + x.name;
        if (!x.mergeModule && !sink.named.count(lower(full)) && !sink.named.count(lower(x.name)))
            x.via = "dep";
        r.missing += x.missing;
        r.filterable += x.filterable;
        r.modules += x.mergeModule;
    }
    return r;
}

std::string json_static(const static_result& r, const std::string& indent) {
    std::string s = "{\n" + indent + "  \"file\": " + json_string(r.file) + ",\n" + indent +
                    "  \"exists\": " + (r.present ? "true" : "false") + ",\n" + indent +
                    "  \"completed\": " + (r.completed ? "true" : "false") + ",\n" + indent + "  \"dependencies\": [";
    for (size_t i = 0; i < r.records.size(); ++i)
        s += (i ? ",\n" : "\n") + json_record(r.records[i], (indent + "    ").c_str());
    return s + std::string(r.records.empty() ? "" : "\n" + indent + "  ") + "],\n" + indent +
           "  \"summary\": {\"files\": " + std::to_string(r.records.size()) +
           ", \"missing\": " + std::to_string(r.missing) + ", \"filterable\": " + std::to_string(r.filterable) +
           ", \"mergeModules\": " + std::to_string(r.modules) + ", \"filesMet\": " + std::to_string(r.filesMet) +
           "}\n" + indent + "}";
}

std::string text_static(const static_result& r) {
    table t({"NAME", "FOLDER", "VERSION", "SIZE", "MARKS"});
    for (const auto& x : r.records)
        t.add({utf8(x.name), utf8(x.path), utf8(version_text(x.major, x.minor)),
               x.missing ? "" : std::to_string(x.size), marks(x)});
    return t.render() + std::to_string(r.records.size()) + " files, " + std::to_string(r.missing) + " missing, " +
           std::to_string(r.filterable) + " filterable, " + std::to_string(r.modules) + " merge modules";
}

// What is wrong with one scanned file, on standard error; the exit code it asks for.
int tell_static(const server_dll& dll, const static_result& r) {
    if (FAILED(r.hr)) {
        err("qvscan: scanning " + utf8(r.file) + " failed: " + r.failure + "\n");
        return ExitFailed;
    }
    if (!r.present) {
        err("qvscan: " + utf8(r.file) + ": " + not_a_file(r.file) + "\n");
        return ExitNoFile;
    }
    if (r.records.empty() && r.filesMet == 0) {
        qv::com_ptr<IDepFile> pe;
        auto util = dll.create<IScanUtil>(CLSID_ScanUtil, IID_IScanUtil);
        if (SUCCEEDED(util->get_PE(qv::bstr(r.file).get(), pe.put())) && !pe)
            err("qvscan: " + utf8(r.file) + " is not a Windows image, so nothing was scanned\n");
    }
    return ExitOk;
}

// The files a list of FILEs and folders names: a folder stands for the Windows images in it, by name.
std::vector<std::wstring> static_files(const options& o) {
    std::vector<std::wstring> given{o.file};
    given.insert(given.end(), o.names.begin(), o.names.end());
    std::vector<std::wstring> files;
    for (const std::wstring& one : given) {
        const std::wstring path = full_path(one);
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
            files.push_back(path);
            continue;
        }
        std::vector<std::wstring> images;
        WIN32_FIND_DATAW data;
        qv::unique_hfind find(FindFirstFileW(qv::JoinPath(path, L"*").c_str(), &data));
        for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.get(), &data)) {
            const std::wstring file = qv::JoinPath(path, data.cFileName);
            char head[2] = {};
            DWORD got = 0;
            qv::unique_hfile handle(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                OPEN_EXISTING, 0, nullptr));
            if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && handle &&
                ReadFile(handle.get(), head, 2, &got, nullptr) && got == 2 && head[0] == 'M' && head[1] == 'Z')
                images.push_back(file);
        }
        std::sort(images.begin(), images.end(), [](const std::wstring& a, const std::wstring& b) {
            return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
        });
        files.insert(files.end(), images.begin(), images.end());
    }
    return files;
}

int run_static(const server_dll& dll, const options& o) {
    auto scan = dll.create<IStaticScan>(CLSID_StaticScan, IID_IStaticScan);
    const qv::com_ptr<IUnknown> catalog = load_merge_modules(o);
    const std::wstring single = full_path(o.file);
    const DWORD attributes = GetFileAttributesW(single.c_str());
    if (o.names.empty() && (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))) {
        const static_result r = scan_static(scan.get(), single, o, catalog.get());
        if (FAILED(r.hr))
            return tell_static(dll, r);
        if (o.json)
            out(json_static(r, "") + "\n");
        else
            out(text_static(r) + " (marks: M missing, F filterable, G merge module, S shared, R self-registering, D "
                                 "from a .dep file)\n");
        return tell_static(dll, r);
    }

    // Several files, or the images of a folder: a section for each, one after the other.
    const std::vector<std::wstring> files = static_files(o);
    const bool terminal = err_is_terminal();
    std::vector<static_result> results;
    int rc = ExitOk;
    size_t records = 0, missing = 0;
    for (size_t i = 0; i < files.size(); ++i) {
        if (terminal)
            err("\r\x1b[K[" + std::to_string(i + 1) + "/" + std::to_string(files.size()) + "] " + utf8(files[i]));
        results.push_back(scan_static(scan.get(), files[i], o, catalog.get()));
        if (terminal)
            err("\r\x1b[K");
        rc = std::max(rc, tell_static(dll, results.back()));
        records += results.back().records.size();
        missing += results.back().missing;
    }
    if (o.json) {
        std::string s = "{\n  \"files\": [";
        for (size_t i = 0; i < results.size(); ++i)
            s += (i ? ",\n    " : "\n    ") + json_static(results[i], "    ");
        out(s + (results.empty() ? "" : "\n  ") + "],\n  \"summary\": {\"scanned\": " + std::to_string(results.size()) +
            ", \"records\": " + std::to_string(records) + ", \"missing\": " + std::to_string(missing) + "}\n}\n");
    } else {
        for (const auto& r : results)
            out(utf8(r.file) + ":\n" + (FAILED(r.hr) ? "  the scan failed: " + r.failure : text_static(r)) + "\n\n");
        out(std::to_string(results.size()) + " files scanned, " + std::to_string(records) + " records, " +
            std::to_string(missing) +
            " missing (marks: M missing, F filterable, G merge module, S shared, R self-registering, D from a .dep "
            "file)\n");
    }
    if (files.empty())
        err("qvscan: no Windows image to scan\n");
    return rc;
}

int run_pe(const server_dll& dll, const options& o) {
    const std::wstring file = full_path(o.file);
    auto util = dll.create<IScanUtil>(CLSID_ScanUtil, IID_IScanUtil);
    qv::bstr path(file);
    qv::com_ptr<IDepFile> pe;
    check_hr(util->get_PE(path.get(), pe.put()));
    if (!pe) {
        if (o.json)
            out("{\"file\": " + json_string(file) + ", \"pe\": null}\n");
        if (!exists(file)) {
            err("qvscan: " + utf8(file) + ": " + not_a_file(file) + "\n");
            return ExitNoFile;
        }
        if (!o.json)
            out(utf8(file) + ": not a PE image\n");
        return ExitOk;
    }
    record r = read_record(pe.get());
    if (o.json) {
        out("{\"file\": " + json_string(file) + ", \"pe\": " + json_record(r, "") + "}\n");
        return ExitOk;
    }
    std::string langs;
    for (long id : r.languages)
        langs += (langs.empty() ? "" : " ") + std::to_string(id);
    table t({"name", utf8(r.name)});
    t.add({"folder", utf8(r.path)});
    t.add({"version", utf8(version_text(r.major, r.minor))});
    t.add({"size", std::to_string(r.size)});
    t.add({"modified", utf8(time_text(r.modified))});
    t.add({"languages", langs});
    t.add({"destination", utf8(r.destPath)});
    t.add({"shared", r.shared ? "yes" : "no"});
    t.add({"self-registering", r.selfRegistering ? "yes" : "no"});
    out(t.render());
    return ExitOk;
}

std::wstring guid_text(const GUID& g) {
    wchar_t buffer[64];
    StringFromGUID2(g, buffer, 64);
    return buffer;
}

LONG set_value(HKEY root, const std::wstring& key, const wchar_t* name, const std::wstring& value) {
    HKEY k = nullptr;
    LONG rc = RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &k, nullptr);
    if (rc != ERROR_SUCCESS)
        return rc;
    rc = RegSetValueExW(k, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                        static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(k);
    return rc;
}

int run_register(const server_dll& dll, const options& o, bool add) {
    // For the user alone, the classes root is the user's own classes key while this runs: the class
    // entries and the type library's entries both land there.
    HKEY userClasses = nullptr;
    if (o.user) {
        LONG rc = RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Classes", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                  &userClasses, nullptr);
        if (rc == ERROR_SUCCESS)
            rc = RegOverridePredefKey(HKEY_CLASSES_ROOT, userClasses);
        if (rc != ERROR_SUCCESS) {
            err("qvscan: cannot open the user's classes: " + describe(HRESULT_FROM_WIN32(rc)) + "\n");
            if (userClasses)
                RegCloseKey(userClasses);
            return ExitFailed;
        }
    }
    struct restore_root {
        HKEY key;
        ~restore_root() {
            if (key) {
                RegOverridePredefKey(HKEY_CLASSES_ROOT, nullptr);
                RegCloseKey(key);
            }
        }
    } restore{userClasses};
    HKEY classes = HKEY_CLASSES_ROOT;
    wchar_t description[256] = {};
    LoadStringW(dll.module(), qv::class_registrations[0].descriptionResource, description, 256);
    int done = 0;
    for (const auto& c : qv::class_registrations) {
        const std::wstring clsid = guid_text(*c.clsid);
        if (!add) {
            RegDeleteTreeW(classes, (L"CLSID\\" + clsid).c_str());
            RegDeleteTreeW(classes, c.progId);
            RegDeleteTreeW(classes, c.versionIndependent);
            ++done;
            continue;
        }
        // Only the classes this server can make are announced.
        qv::com_ptr<IClassFactory> factory;
        if (FAILED(dll.factory(*c.clsid, factory.put())))
            continue;
        const std::wstring key = L"CLSID\\" + clsid;
        LONG results[] = {
            set_value(classes, key, nullptr, description),
            set_value(classes, key + L"\\InprocServer32", nullptr, dll.path()),
            set_value(classes, key + L"\\InprocServer32", L"ThreadingModel", c.threadingModel),
            set_value(classes, key + L"\\ProgID", nullptr, c.progId),
            set_value(classes, key + L"\\VersionIndependentProgID", nullptr, c.versionIndependent),
            set_value(classes, key + L"\\TypeLib", nullptr, guid_text(LIBID_QVWISCANNERSLib)),
            set_value(classes, c.progId, nullptr, description),
            set_value(classes, std::wstring(c.progId) + L"\\CLSID", nullptr, clsid),
            set_value(classes, c.versionIndependent, nullptr, description),
            set_value(classes, std::wstring(c.versionIndependent) + L"\\CLSID", nullptr, clsid),
            set_value(classes, std::wstring(c.versionIndependent) + L"\\CurVer", nullptr, c.progId),
        };
        for (LONG r : results) {
            if (r != ERROR_SUCCESS) {
                err("qvscan: cannot write the registration of " + utf8(c.name) + ": " +
                    describe(HRESULT_FROM_WIN32(r)) + "\n");
                return ExitFailed;
            }
        }
        out("registered " + utf8(c.name) + " as " + utf8(c.versionIndependent) + "\n");
        ++done;
    }
    HRESULT hr = S_OK;
    if (add) {
        ITypeLib* lib = nullptr;
        hr = LoadTypeLibEx(dll.path().c_str(), REGKIND_NONE, &lib);
        if (SUCCEEDED(hr)) {
            std::wstring path = dll.path();
            hr = RegisterTypeLib(lib, path.data(), nullptr);
            lib->Release();
        }
    } else {
        hr = UnRegisterTypeLib(LIBID_QVWISCANNERSLib, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
        if (hr == TYPE_E_REGISTRYACCESS || hr == TYPE_E_CANTLOADLIBRARY)
            hr = S_OK; // nothing was registered
    }
    if (FAILED(hr)) {
        err(std::string("qvscan: cannot ") + (add ? "register" : "unregister") + " the type library: " + describe(hr) +
            "\n");
        return ExitFailed;
    }
    out(std::string(add ? "registered" : "unregistered") + " the type library and " + std::to_string(done) +
        " classes\n");
    return ExitOk;
}

} // namespace qvscan

// What the ini engine reads of FILE: every section with its entries, the entries of one section, or one
// value. A read cut short by a bad line shows what came before it, says where it stopped, and exits 1.
int run_ini(const options& o) {
    const std::wstring file = full_path(o.file);
    qv::inifilex ini;
    const bool whole = ini.Load(file, L"=", true);
    if (!whole && ini.GetLastError() != ERROR_INVALID_DATA) {
        err("qvscan: " + utf8(file) + ": " +
            (exists(file) ? describe(HRESULT_FROM_WIN32(ini.GetLastError())) : not_a_file(file)) + "\n");
        return exists(file) ? ExitFailed : ExitNoFile;
    }
    auto entries = [&](const qv::inifilesectionx& section) {
        for (const qv::inifileentryx& e : section.m_entries)
            out(utf8(e.m_sKey) + (e.m_sValue.empty() ? "" : "=" + utf8(e.m_sValue)) + "\n");
    };
    const qv::inifilesectionx* section = o.names.empty() ? nullptr : ini.FindSection(o.names[0]);
    if (o.names.empty()) {
        for (const qv::inifilesectionx& s : ini.Sections())
            out("[" + utf8(s.m_sName) + "]\n"), entries(s);
    } else if (!section) {
        err("qvscan: " + utf8(file) + " has no section [" + utf8(o.names[0]) + "]\n");
        return ExitFailed;
    } else if (o.names.size() == 1) {
        entries(*section);
    } else if (!ini.HasKey(o.names[0], o.names[1])) {
        err("qvscan: [" + utf8(o.names[0]) + "] of " + utf8(file) + " has no key " + utf8(o.names[1]) + "\n");
        return ExitFailed;
    } else {
        out(utf8(ini.GetString(o.names[0], o.names[1], L"")) + "\n");
    }
    if (whole)
        return ExitOk;
    err("qvscan: " + utf8(file) + ": read only up to line " + std::to_string(ini.BadLine()) + ": " +
        utf8(ini.BadLineText()) + "\n");
    return ExitFailed;
}

// Runs a setup program as the library's setup export does (waiting for it and then for the children it
// left), and prints the result and the exit code of the last process waited for.
int run_setup(const options& o) {
    const int result = qv::LaunchSetupAndWait(o.file);
    const qv::launch_state& last = qv::LastLaunch();
    static const char* const words[] = {"done", "could not be started", "a wait failed", "a wait timed out"};
    out("result " + std::to_string(result) + " (" + words[result < 0 ? -result : 0] + "), exit code " +
        std::to_string(last.exitCode) + "\n");
    if (result == -1)
        err("qvscan: " + utf8(last.message) + ": " + describe(HRESULT_FROM_WIN32(last.lastError)) + "\n");
    return result == 0 ? ExitOk : ExitFailed;
}

int wmain(int argc, wchar_t** argv) {
    options o;
    try {
        o = parse(argc, argv);
    } catch (const usage_error& e) {
        if (!e.message.empty())
            err("qvscan: " + e.message + "\n");
        err(Usage);
        return e.message.empty() ? ExitOk : ExitUsage;
    }
    if (o.command == L"ini")
        return run_ini(o);
    if (o.command == L"msm") {
        HRESULT com = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        int rc = ExitFailed;
        try {
            rc = run_msm(o);
        } catch (const std::exception& e) {
            err(std::string("qvscan: ") + e.what() + "\n");
        }
        if (SUCCEEDED(com))
            CoUninitialize();
        return rc;
    }
    if (o.command == L"setup")
        return run_setup(o);
    HRESULT init = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    int rc = ExitFailed;
    try {
        server_dll dll;
        if (o.command == L"static")
            rc = run_static(dll, o);
        else if (o.command == L"trace" || o.command == L"attach")
            rc = run_trace(dll, o);
        else if (o.command == L"pe")
            rc = run_pe(dll, o);
        else if (o.command == L"assembly")
            rc = run_assembly(dll, o);
        else if (o.command == L"vbp")
            rc = run_vbp(dll, o);
        else
            rc = run_register(dll, o, o.command == L"register");
    } catch (const com_exception& e) {
        err("qvscan: " + describe(e.Error()) + "\n");
    } catch (const qv::win32_exception& e) {
        err("qvscan: " + describe(e.Result()) + "\n");
    } catch (const std::exception& e) {
        err(std::string("qvscan: ") + e.what() + "\n");
    }
    if (SUCCEEDED(init))
        CoUninitialize();
    return rc;
}
