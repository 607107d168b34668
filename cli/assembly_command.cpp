// qvscan assembly FILE [--json]: one file read as an assembly through the server's DotNetAssembly: its
// identity, and everything it needs one level deep, each reference with its kind, where it was found and
// the machine it was looked for. The walk runs in the assembly's folder, as a static scan runs it, so that
// module files and native libraries beside it are found as a scan finds them.
//
// The server's interfaces tell neither the machine of the file nor why a reference stands in the list,
// so the tool reads the file's own tables for those with the platform-free readers: the CLI header, and
// the names of the AssemblyRef, ModuleRef and File rows. A missing assembly is shown with the identity
// its AssemblyRef row asks for.
//
// Exit codes: 0 also for a file that is no assembly (it says so); 1 for corrupt metadata; 3 no such file.
#include "commands.h"

#include "error_text.h"
#include "format/metadata/metadata.h"
#include "format/pe/pe_image.h"
#include "format/pe/pe_layout.h"
#include "json_writer.h"
#include "linux_paths.h"
#include "progress.h"
#include "records.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"
#include "toolkit/qvmapfilex.h"

#include <windows.h>

#include <corerror.h>
#include <oleauto.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace qvscan {

namespace {

namespace md = qv::metadata;

// What the file's own tables say. Names are in lower case, for comparing with file names.
struct file_tables {
    std::string machine; // "MSIL", "X86", "Amd64", "IA64", "native" (no CLI header), or empty
    bool metadata = false, manifest = false;
    std::map<std::wstring, std::string> assemblies; // AssemblyRef name -> the identity it asks for
    std::set<std::wstring> modules, files;          // ModuleRef names with ".dll" added where bare; File rows
};

std::string hex_bytes(qv::format::byte_span bytes) {
    std::string text;
    char digits[3];
    for (std::uint64_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(digits, sizeof digits, "%02x", bytes.data()[i]);
        text += digits;
    }
    return text;
}

std::string version_words(const md::version& v) {
    return std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.build) + "." +
           std::to_string(v.revision);
}

// "Name, Version=1.2.3.4, Culture=neutral, PublicKeyToken=a964ced94cf79d20". A reference that holds the
// whole key shows it as PublicKey=, since its token would need a hash.
std::string display_name(const md::assembly_ref_row& row) {
    std::string text = row.name + ", Version=" + version_words(row.version) +
                       ", Culture=" + (row.culture.empty() ? "neutral" : row.culture);
    if (row.public_key_or_token.empty())
        return text + ", PublicKeyToken=null";
    return text + ((row.flags & 1) ? ", PublicKey=" : ", PublicKeyToken=") + hex_bytes(row.public_key_or_token);
}

// The machine the runtime reads from the CLI header, in the server's words.
std::string machine_text(const qv::pe::pe_image& image) {
    const auto header = md::read_cli_header(image);
    if (!header)
        return "native";
    constexpr std::uint32_t ilOnly = 1, required32 = 2, preferred32 = 0x20000;
    if ((header->flags & required32) && !(header->flags & preferred32))
        return "X86";
    if (image.kind() == qv::pe::image_kind::pe64)
        return image.machine() == qv::pe::layout::machine::ia64    ? "IA64"
               : image.machine() == qv::pe::layout::machine::amd64 ? "Amd64"
                                                                   : "";
    return (header->flags & ilOnly) ? "MSIL" : "";
}

file_tables read_tables(const std::wstring& file) {
    file_tables t;
    qv::qvmapfilex map;
    DWORD size = 0;
    if (!map.Open(file, size, false))
        return t;
    const auto image = qv::pe::pe_image::open({static_cast<const std::uint8_t*>(map.View()), map.Size()});
    if (!image)
        return t;
    t.machine = machine_text(*image);
    const auto reader = md::metadata_reader::open(*image);
    if (!reader)
        return t;
    t.metadata = true;
    t.manifest = reader->rows(md::table::Assembly) > 0;
    for (std::uint32_t row = 1; row <= reader->rows(md::table::AssemblyRef); ++row) {
        if (const auto ref = reader->assembly_ref(row))
            t.assemblies.emplace(qv::LowerCase(wide(ref->name)), display_name(*ref));
    }
    for (std::uint32_t row = 1; row <= reader->rows(md::table::ModuleRef); ++row) {
        std::wstring name = qv::FileNamePart(wide(reader->module_ref(row).value_or("")));
        if (!name.empty())
            t.modules.insert(qv::LowerCase(qv::ExtensionPart(name).empty() ? name + L".dll" : name));
    }
    for (std::uint32_t row = 1; row <= reader->rows(md::table::File); ++row) {
        if (const auto f = reader->file(row))
            t.files.insert(qv::LowerCase(qv::FileNamePart(wide(f->name))));
    }
    return t;
}

struct identity_text {
    std::wstring name, version, culture, token;
};

identity_text read_identity(IDotNetAssembly* assembly) {
    identity_text id;
    qv::bstr text;
    check_hr(assembly->get_Name(text.put()));
    id.name = text.str();
    check_hr(assembly->get_Version(text.put()));
    id.version = text.str();
    check_hr(assembly->get_PublicKeyToken(text.put()));
    id.token = text.str();
    check_hr(assembly->get_Culture(text.put()));
    id.culture = text.str();
    return id;
}

struct reference {
    std::wstring fileName; // the full path when found (or found but not loadable), else the name looked for
    bool found = false, child = false;
    long machine = 0;
    std::wstring version, token; // of the child assembly
    std::string kind, identity;  // identity: what the AssemblyRef row asks for, for assemblies
};

// The identity asked for by the AssemblyRef row that a reference answers: the row named as the child
// assembly is, or as the name the server looked for (missing), or as the file without its extension (found
// on disk, but it did not load as an assembly); null for a reference that answers none.
const std::string* asked_for(const reference& r, const std::wstring& childName, const file_tables& t) {
    std::wstring key;
    if (r.child) {
        key = qv::LowerCase(childName);
    } else if (!r.found) {
        key = qv::LowerCase(qv::FileNamePart(r.fileName));
        if (key.size() != r.fileName.size())
            key.resize(key.size() - qv::ExtensionPart(key).size());
    }
    const auto row = key.empty() ? t.assemblies.end() : t.assemblies.find(key);
    return row == t.assemblies.end() ? nullptr : &row->second;
}

bool is_type_library(const std::wstring& path) {
    qv::com_ptr<ITypeLib> library;
    return SUCCEEDED(LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.put()));
}

// Why the reference stands in the list, judged by the referring file's tables.
std::string kind_of(const reference& r, bool asked, const file_tables& t) {
    const std::wstring name = qv::LowerCase(qv::FileNamePart(r.fileName));
    if (r.child || asked)
        return "assembly";
    if (t.modules.count(name))
        return "native";
    if (t.files.count(name))
        return "module file";
    if (r.found && is_type_library(r.fileName))
        return "type library";
    return "other";
}

std::vector<reference> read_references(IDotNetAssemblyRefs* refs, const file_tables& t) {
    std::vector<reference> all;
    long count = 0;
    check_hr(refs->get_Count(&count));
    for (long i = 1; i <= count; ++i) {
        qv::com_ptr<IDotNetAssemblyRef> ref;
        check_hr(refs->get_Item(item_index(i), ref.put()));
        if (!ref)
            continue;
        reference r;
        qv::bstr text;
        VARIANT_BOOL found = VARIANT_FALSE;
        check_hr(ref->get_FileName(text.put()));
        r.fileName = text.str();
        check_hr(ref->get_Found(&found));
        r.found = found != VARIANT_FALSE;
        if (auto sp1 = ref.query<IDotNetAssemblyRefValeSP1>(IID_IDotNetAssemblyRefValeSP1))
            check_hr(sp1->get_Machine(&r.machine));
        qv::com_ptr<IDotNetAssembly> child;
        identity_text id;
        if (SUCCEEDED(ref->get_DotNetAssembly(child.put())) && child) {
            id = read_identity(child.get());
            r.child = true;
            r.version = id.version;
            r.token = id.token;
        }
        const std::string* asked = asked_for(r, id.name, t);
        r.identity = asked ? *asked : std::string();
        r.kind = kind_of(r, asked != nullptr, t);
        all.push_back(std::move(r));
    }
    return all;
}

// The machine word a reference was looked for, as people write it; empty for none, the number for a word
// without a name.
std::string machine_word(long machine) {
    if (machine == 0)
        return "";
    const std::string name =
        machine > 0 && machine <= 0xFFFF ? qv::pe::layout::machine::name(static_cast<std::uint16_t>(machine)) : "";
    return name.empty() ? std::to_string(machine) : name;
}

// An assembly that the search found on disk but that did not load: it keeps its path.
bool on_disk(const reference& r) {
    return !r.found && r.kind == "assembly" && qv::FileNamePart(r.fileName).size() != r.fileName.size();
}

json text_or_null(const std::wstring& text) {
    return text.empty() ? json(nullptr) : json(utf8(text));
}

std::string or_dash(const std::string& text) {
    return text.empty() ? "-" : text;
}

std::map<std::string, size_t> count_kinds(const std::vector<reference>& refs) {
    std::map<std::string, size_t> kinds;
    for (const reference& r : refs)
        ++kinds[r.kind];
    return kinds;
}

const json_layout one_line{};
const json_layout assembly_layout{{"", "references"}};

// The document of a file that is no assembly (or none that loads).
json no_assembly_json(const std::wstring& file) {
    return {{"file", utf8(file)},
            {"assembly", nullptr},
            {"references", json::array()},
            {"summary", {{"references", 0}, {"missing", 0}, {"kinds", json::object()}}}};
}

json reference_json(const reference& r) {
    const std::string machine = machine_word(r.machine);
    return {{"name", utf8(qv::FileNamePart(r.fileName))},
            {"kind", r.kind},
            {"found", r.found},
            {"path", r.found || on_disk(r) ? json(utf8(r.fileName)) : json(nullptr)},
            {"machine", machine.empty() ? json(nullptr) : json(machine)},
            {"version", text_or_null(r.version)},
            {"token", text_or_null(r.token)},
            {"identity", text_or_null(wide(r.identity))}};
}

void print_json_document(const std::wstring& file, const identity_text& id, const file_tables& tables,
                         const std::vector<reference>& refs) {
    json list = json::array(), kinds = json::object();
    size_t missing = 0;
    for (const reference& r : refs) {
        list.push_back(reference_json(r));
        missing += !r.found;
    }
    for (const auto& [kind, n] : count_kinds(refs))
        kinds[kind] = n;
    print_json({{"file", utf8(file)},
                {"assembly",
                 {{"name", utf8(id.name)},
                  {"version", utf8(id.version)},
                  {"culture", utf8(id.culture)},
                  {"token", text_or_null(id.token)},
                  {"machine", utf8(wide(tables.machine))}}},
                {"references", list},
                {"summary", {{"references", refs.size()}, {"missing", missing}, {"kinds", kinds}}}},
               assembly_layout);
}

void print_text(const identity_text& id, const file_tables& tables, const std::vector<reference>& refs) {
    table who({"name", utf8(id.name)});
    who.add({"version", utf8(id.version)});
    who.add({"culture", utf8(id.culture)});
    who.add({"token", or_dash(utf8(id.token))});
    who.add({"machine", or_dash(tables.machine)});
    out(who.render() + "\n");
    table t({"REFERENCE", "KIND", "MACHINE", "VERSION", "TOKEN", "WHERE"});
    size_t missing = 0;
    for (const reference& r : refs) {
        const std::string where = r.found              ? utf8(r.fileName)
                                  : on_disk(r)         ? "not loadable: " + utf8(r.fileName)
                                  : r.identity.empty() ? std::string("missing")
                                                       : "missing: " + r.identity;
        t.add({utf8(qv::FileNamePart(r.fileName)), r.kind, or_dash(machine_word(r.machine)), or_dash(utf8(r.version)),
               or_dash(utf8(r.token)), where});
        missing += !r.found;
    }
    out(t.render());
    out(std::to_string(refs.size()) + " references, " + std::to_string(missing) + " missing\n");
}

// A file that does not load as an assembly: told; the exit code.
int tell_not_loaded(const std::wstring& file, HRESULT loaded, const file_tables& tables, bool asJson) {
    if (asJson)
        print_json(no_assembly_json(file), one_line);
    if (loaded == CLDB_E_FILE_CORRUPT) {
        err("qvscan: " + utf8(file) + ": not an assembly: " + failure_text(loaded) + "\n");
        return ExitFailed;
    }
    const std::string why = tables.metadata && !tables.manifest
                                ? "a module of a multi-file assembly, without a manifest"
                                : describe(loaded);
    if (!asJson)
        out(utf8(file) + ": not an assembly: " + why + "\n");
    return ExitOk;
}

// Load always reads the culture as "neutral"; the other reader, on an object of its own so that it leaves
// the walk's object alone, reads the real one.
void read_culture(const server_dll& dll, const qv::bstr& path, identity_text& id) {
    auto other = dll.create<IDotNetAssembly>(CLSID_DotNetAssembly, IID_IDotNetAssembly);
    VARIANT_BOOL noProvider = VARIANT_FALSE, read = VARIANT_FALSE;
    qv::bstr culture;
    if (SUCCEEDED(other->LoadProperties(path.get(), &noProvider, &read)) && read &&
        SUCCEEDED(other->get_Culture(culture.put())))
        id.culture = culture.str();
}

} // namespace

int run_assembly(const server_dll& dll, const options& o) {
    const std::wstring file = full_path(o.file);
    if (!exists(file)) {
        if (o.json)
            print_json(no_assembly_json(file), one_line);
        err("qvscan: " + utf8(file) + ": " + not_a_file(file) + "\n");
        return ExitNoFile;
    }
    const file_tables tables = read_tables(file);
    auto assembly = dll.create<IDotNetAssembly>(CLSID_DotNetAssembly, IID_IDotNetAssembly);
    qv::bstr path(file);
    const HRESULT loaded = assembly->Load(path.get());
    if (FAILED(loaded))
        return tell_not_loaded(file, loaded, tables, o.json);
    identity_text id = read_identity(assembly.get());
    read_culture(dll, path, id);

    // The command is the process's last work, so the folder is not put back.
    SetCurrentDirectoryW(qv::DirectoryPart(file).c_str());
    progress_sink events;
    qv::com_ptr<IDotNetAssemblyRefs> list;
    check_hr(assembly->get_Dependencies(&events, list.put()));
    std::vector<reference> refs;
    if (list)
        refs = read_references(list.get(), tables);
    if (o.json)
        print_json_document(file, id, tables, refs);
    else
        print_text(id, tables, refs);
    return ExitOk;
}

} // namespace qvscan
