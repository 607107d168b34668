// The reader of Visual Basic project (.vbp) and project group (.vbg) files: a plain line scanner that knows a
// fixed set of keys, matched case-sensitively at the very start of a line, and no grammar beyond them.
//
// Trusts nothing in the files: a line is cut at 1023 characters and the first blank line ends every reading.
// Trusts the host to answer its questions; whatever the host throws passes through the reader unchanged.
//
// The scan driver owns a project_reader_state for as long as it lives, implements project_reader_host on
// its event sink and its own ScanProject, and calls ReadProject for each project and WalkProjectGroup for a
// group file. The state outlives one project on purpose: the missing-forms list of a group keeps growing.
#pragma once

#include <map>
#include <string>
#include <vector>

enum EVBProjectKind {
    vbkUnknown = 0,
    vbkStandardExe = 1,
    vbkActiveXExe = 2,
    vbkActiveXDll = 3,
    vbkControl = 4,
    vbkActiveXExeDocuments = 5,
    vbkActiveXDllDocuments = 6,
};

// What the first reading of a project file yields. sPath ends in a backslash unless it was taken as
// written; sFolder is the project file's folder with its trailing backslash.
struct VBProjectInfo {
    std::wstring sExeName;
    std::wstring sPath;
    std::wstring sName;
    std::wstring sFolder;
    EVBProjectKind eKind = vbkUnknown;
};

// What the reader keeps beyond one call, held by the driver.
struct project_reader_state {
    std::map<std::wstring, std::wstring> m_formFiles; // the whole "Form=" line -> the form file's full path
    std::wstring m_sMissingForms;                     // "a.frm;b.frm;": never cleared by the reader
    bool m_bAbort = false;                            // set by a FileNotFound answer of "stop"
};

class project_reader_host {
public:
    virtual ~project_reader_host() = default;
    // True only when the host asks to cancel; asked before each line of a project or form file.
    virtual bool QueryCancel() = 0;
    virtual void PercentDone(long percent) = 0;
    // One event for all missing forms of a project; true to go on with the scan.
    virtual bool FileNotFound(const std::wstring& project, const std::wstring& missingForms) = 0;
    // One project of a group, as the driver scans it; it reports a missing project itself and sets
    // m_bAbort of the state when the scan is to end.
    virtual void ScanProject(const std::wstring& path) = 0;
};

// PathCombineW with its fixed buffer, which resolves "." and ".." steps; empty when the result does not fit.
std::wstring Combine(const std::wstring& folder, const std::wstring& relative);

// The lines of a text file as all readings see them: each byte one character, CR LF (and LF) ending a line,
// a Ctrl-Z byte ending the file, each line seen up to its first null. The lines stop before the first empty
// one; a line longer than 1023 characters is cut there and is the last. An unreadable file has no lines.
std::vector<std::wstring> ReadProjectLines(const std::wstring& path);

// Visits the lines of a file as ReadProjectLines gives them, asking the host before each read, the one
// that finds the end included. False when the host cancelled.
template <typename Visit> bool EachProjectLine(const std::wstring& path, project_reader_host& host, Visit visit) {
    const std::vector<std::wstring> lines = ReadProjectLines(path);
    for (size_t n = 0;; ++n) {
        if (host.QueryCancel())
            return false;
        if (n == lines.size())
            return true;
        visit(lines[n]);
    }
}

// The first reading of the project file at path into info and, when it names forms, the second reading of
// those forms into state. Returns the step count: "Reference=" and "Object=" lines and the "Object =" lines
// of each existing form file. A cancellation returns at once with the count and the fields so far; one at
// the end of the first reading leaves the fields uncompleted (sFolder empty).
int ReadProject(const std::wstring& path, VBProjectInfo& info, project_reader_state& state, project_reader_host& host);

// Scans each project that a group file names, in file order, until state.m_bAbort is set.
void WalkProjectGroup(const std::wstring& path, project_reader_state& state, project_reader_host& host);
