#include "vb/project_reader.h"

#include "inc/unique_handles.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

#include <windows.h>

#include <shlwapi.h>

#include <algorithm>
#include <string_view>

namespace {

constexpr size_t kLineLimit = 1023; // a buffer of 1024 characters with its terminator

// The bytes of a file as a text-mode stream delivers them: CR LF as one LF, a Ctrl-Z as the end.
class text_bytes {
public:
    explicit text_bytes(const std::wstring& path)
        : m_file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {}

    // The next character, or -1 at the end.
    int Get() {
        int c = Raw();
        if (c == 0x1A) {
            m_end = true;
            return -1;
        }
        if (c == '\r' && Peek() == '\n')
            c = Raw();
        return c;
    }

private:
    int Peek() {
        if (m_end || (m_pos == m_size && !Fill()))
            return -1;
        return m_buffer[m_pos];
    }
    int Raw() {
        int c = Peek();
        if (c >= 0)
            ++m_pos;
        return c;
    }
    bool Fill() {
        DWORD read = 0;
        if (m_end || !m_file || !ReadFile(m_file.get(), m_buffer, sizeof m_buffer, &read, nullptr) || read == 0) {
            m_end = true;
            return false;
        }
        m_pos = 0;
        m_size = read;
        return true;
    }

    qv::unique_hfile m_file;
    unsigned char m_buffer[16384];
    size_t m_pos = 0;
    size_t m_size = 0;
    bool m_end = false;
};

bool StartsWith(std::wstring_view line, std::wstring_view key) {
    return line.starts_with(key);
}

// The value of a quoted key: its first and last character dropped unseen.
void TakeQuoted(const std::wstring& line, size_t keyLength, std::wstring& field) {
    if (line.size() > keyLength + 2)
        field = line.substr(keyLength + 1, line.size() - keyLength - 2);
}

std::wstring FolderOf(const std::wstring& path) {
    std::wstring folder = qv::DirectoryPart(path);
    if (!folder.empty() && !qv::IsPathSeparator(folder.back()))
        folder += L'\\';
    return folder;
}

void CompleteInfo(const std::wstring& path, int oleType, bool hasClass, bool hasUserDocument, VBProjectInfo& info) {
    info.sFolder = FolderOf(path);
    if (hasClass && oleType != 0)
        info.eKind = oleType == 1 ? vbkActiveXDll : vbkActiveXExe;
    if (hasUserDocument && oleType != 0)
        info.eKind = oleType == 1 ? vbkActiveXDllDocuments : vbkActiveXExeDocuments;
    if (info.sExeName.empty()) {
        const std::wstring name = qv::FileNamePart(path);
        const std::wstring stem = name.substr(0, name.size() - qv::ExtensionPart(name).size());
        switch (info.eKind) {
        case vbkStandardExe:
        case vbkActiveXExe:
        case vbkActiveXExeDocuments:
            info.sExeName = stem + L".EXE";
            break;
        case vbkActiveXDll:
        case vbkActiveXDllDocuments:
            info.sExeName = stem + L".DLL";
            break;
        case vbkControl:
            info.sExeName = stem + L".OCX";
            break;
        case vbkUnknown:
            break;
        }
    }
    if (info.sPath.empty()) {
        info.sPath = info.sFolder;
    } else if (!qv::IsAbsolutePath(info.sPath)) {
        info.sPath = Combine(info.sFolder, info.sPath);
        while (!info.sPath.empty() && info.sPath.back() == L'\\')
            info.sPath.pop_back();
        info.sPath += L'\\';
    }
}

// The "Object =" lines of a form file, up to its first blank line or a cancellation.
int CountFormObjects(const std::wstring& form, project_reader_host& host) {
    int count = 0;
    EachProjectLine(form, host, [&](const std::wstring& line) { count += StartsWith(line, L"Object =") ? 1 : 0; });
    return count;
}

// The second reading, for the form files.
void ReadForms(const std::wstring& path, const VBProjectInfo& info, int forms, int& steps, project_reader_state& state,
               project_reader_host& host) {
    host.PercentDone(10);
    state.m_formFiles.clear();
    int i = 0;
    bool missing = false;
    const bool read = EachProjectLine(path, host, [&](const std::wstring& line) {
        if (!StartsWith(line, L"Form="))
            return;
        ++i;
        const std::wstring value = line.substr(5);
        const std::wstring full = qv::IsAbsolutePath(value) ? value : Combine(info.sFolder, value);
        state.m_formFiles[line] = full;
        if (qv::FileExists(full)) {
            steps += CountFormObjects(full, host);
        } else {
            state.m_sMissingForms += value + L";";
            missing = true;
        }
        long p = static_cast<long>(static_cast<double>(i) / forms * 87.0 + 10.0);
        host.PercentDone(p > 96 ? 97 : p);
    });
    if (read && missing) {
        const std::wstring& list = state.m_sMissingForms;
        state.m_bAbort = !host.FileNotFound(path, list.substr(0, list.size() - 1));
    }
}

} // namespace

std::wstring Combine(const std::wstring& folder, const std::wstring& relative) {
    wchar_t out[MAX_PATH] = {};
    if (!PathCombineW(out, folder.c_str(), relative.c_str()))
        return {};
    return out;
}

std::vector<std::wstring> ReadProjectLines(const std::wstring& path) {
    std::vector<std::wstring> lines;
    text_bytes bytes(path);
    for (;;) {
        std::wstring line;
        int c;
        while ((c = bytes.Get()) >= 0 && c != '\n' && line.size() < kLineLimit)
            line += static_cast<wchar_t>(c);
        // A 1024th character makes the stream fail: the cut line is the last one seen.
        const bool failed = line.size() == kLineLimit && c >= 0 && c != '\n';
        // The line lives in a character buffer, which ends at its first null.
        line.resize(std::min(line.size(), line.find(L'\0')));
        if (line.empty())
            break;
        lines.push_back(std::move(line));
        if (failed || c < 0)
            break;
    }
    return lines;
}

int ReadProject(const std::wstring& path, VBProjectInfo& info, project_reader_state& state, project_reader_host& host) {
    int steps = 0, forms = 0, oleType = 0;
    bool hasClass = false, hasUserDocument = false;
    const bool read = EachProjectLine(path, host, [&](const std::wstring& line) {
        if (StartsWith(line, L"Reference=") || StartsWith(line, L"Object="))
            ++steps;
        else if (StartsWith(line, L"Form="))
            ++forms;
        else if (StartsWith(line, L"Type=Control"))
            info.eKind = vbkControl;
        else if (StartsWith(line, L"Type=Exe"))
            info.eKind = vbkStandardExe;
        else if (StartsWith(line, L"Type=OleDll"))
            oleType = 1;
        else if (StartsWith(line, L"Type=OleExe"))
            oleType = 2;
        else if (StartsWith(line, L"Class="))
            hasClass = true;
        else if (StartsWith(line, L"UserDocument="))
            hasUserDocument = true;
        else if (StartsWith(line, L"ExeName32="))
            TakeQuoted(line, 10, info.sExeName);
        else if (StartsWith(line, L"Path32="))
            TakeQuoted(line, 7, info.sPath);
        else if (StartsWith(line, L"Name="))
            TakeQuoted(line, 5, info.sName);
    });
    if (!read)
        return steps;
    CompleteInfo(path, oleType, hasClass, hasUserDocument, info);
    if (forms != 0)
        ReadForms(path, info, forms, steps, state, host);
    return steps;
}

void WalkProjectGroup(const std::wstring& path, project_reader_state& state, project_reader_host& host) {
    const std::wstring folder = FolderOf(path);
    for (const std::wstring& line : ReadProjectLines(path)) {
        std::wstring value;
        if (StartsWith(line, L"Project="))
            value = line.substr(8);
        else if (StartsWith(line, L"StartupProject="))
            value = line.substr(15);
        else
            continue;
        host.ScanProject(qv::IsAbsolutePath(value) ? value : Combine(folder, value));
        if (state.m_bAbort)
            break;
    }
}
