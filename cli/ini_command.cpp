// qvscan ini FILE [SECTION [KEY]]: what the ini engine reads of FILE: every section with its entries, the
// entries of one section, or one value. A read cut short by a bad line shows what came before it, says where
// it stopped, and exits 1.
#include "commands.h"

#include "error_text.h"
#include "linux_paths.h"
#include "text_output.h"
#include "toolkit/inifilex.h"

namespace qvscan {

namespace {

void print_entries(const qv::inifilesectionx& section) {
    for (const qv::inifileentryx& e : section.m_entries)
        out(utf8(e.m_sKey) + (e.m_sValue.empty() ? "" : "=" + utf8(e.m_sValue)) + "\n");
}

// What was asked for, printed; the exit code.
int print_asked(qv::inifilex& ini, const std::wstring& file, const std::vector<std::wstring>& names) {
    if (names.empty()) {
        for (const qv::inifilesectionx& s : ini.Sections())
            out("[" + utf8(s.m_sName) + "]\n"), print_entries(s);
        return ExitOk;
    }
    const qv::inifilesectionx* section = ini.FindSection(names[0]);
    if (!section) {
        err("qvscan: " + utf8(file) + " has no section [" + utf8(names[0]) + "]\n");
        return ExitFailed;
    }
    if (names.size() == 1) {
        print_entries(*section);
        return ExitOk;
    }
    if (!ini.HasKey(names[0], names[1])) {
        err("qvscan: [" + utf8(names[0]) + "] of " + utf8(file) + " has no key " + utf8(names[1]) + "\n");
        return ExitFailed;
    }
    out(utf8(ini.GetString(names[0], names[1], L"")) + "\n");
    return ExitOk;
}

} // namespace

int run_ini(const options& o) {
    const std::wstring file = full_path(o.file);
    qv::inifilex ini;
    const bool whole = ini.Load(file, L"=", true);
    if (!whole && ini.GetLastError() != ERROR_INVALID_DATA) {
        err("qvscan: " + utf8(file) + ": " +
            (exists(file) ? describe(HRESULT_FROM_WIN32(ini.GetLastError())) : not_a_file(file)) + "\n");
        return exists(file) ? ExitFailed : ExitNoFile;
    }
    const int rc = print_asked(ini, file, o.names);
    if (rc != ExitOk || whole)
        return rc;
    err("qvscan: " + utf8(file) + ": read only up to line " + std::to_string(ini.BadLine()) + ": " +
        utf8(ini.BadLineText()) + "\n");
    return ExitFailed;
}

} // namespace qvscan
