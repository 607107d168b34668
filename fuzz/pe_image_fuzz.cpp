// libFuzzer target of the PE reader: the whole API on arbitrary bytes. Besides the sanitizers'
// reports, it stops on any answer that disagrees with the plain walks of the test oracles or with
// the reader's own contracts.
#include "format/pe/pe_image.h"
#include "format/pe/pe_layout.h"
#include "format/pe/resources.h"
#include "format/pe/pe_tables.h"
#include "image_writer.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "pe_image_fuzz: %s\n", what);
        std::abort();
    }
}

using qv::pe::image_kind;
using qv::pe::image_status;
namespace L = qv::pe::layout;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const qv::format::byte_span file(data, size);
    const auto c = qv::pe::classify(file);
    check(c.status != image_status::not_mapped, "classify said not_mapped");
    check(c.status == image_status::usable || c.kind == image_kind::invalid, "a kind without usable status");
    check(c.header_offset == -1 || (c.header_offset >= 0 && static_cast<std::uint64_t>(c.header_offset) <= size),
          "header offset outside the file");
    (void)qv::pe::kind_name(c.kind);

    const auto image = qv::pe::pe_image::open(file);
    const bool usable = c.status == image_status::usable && (c.kind == image_kind::pe || c.kind == image_kind::pe64);
    check(image.has_value() == usable, "open disagrees with classify");
    if (!image)
        return 0;

    (void)image->machine();
    std::set<std::uint32_t> rvas{0, 1, 0xFFFFFFFF};
    for (std::uint32_t i = 0; i < 18; ++i) {
        const auto entry = image->directory(i);
        check(entry.has_value() == (i < 16), "directory index bound");
        if (entry) {
            rvas.insert(entry->rva);
            rvas.insert(entry->rva + entry->size);
        }
    }
    // The section edges, read from the table as the walk reads it (up to 64 headers).
    const std::uint32_t nt = image->nt_headers_offset();
    const auto optional_size = file.u16(std::uint64_t{nt} + L::nt::size_of_optional_header_offset);
    const auto count = file.u16(std::uint64_t{nt} + L::nt::number_of_sections_offset);
    if (optional_size && count) {
        const std::uint64_t table = std::uint64_t{nt} + L::nt::optional_header_offset + *optional_size;
        for (std::uint32_t i = 0; i < *count && i < 64; ++i) {
            const auto va = file.u32(table + i * L::section::header_size + L::section::virtual_address_offset);
            const auto vs = file.u32(table + i * L::section::header_size + L::section::virtual_size_offset);
            if (!va || !vs)
                break;
            for (std::uint32_t edge : {*va, *va + *vs}) {
                rvas.insert(edge - 1);
                rvas.insert(edge);
                rvas.insert(edge + 1);
            }
        }
    }
    for (std::uint32_t rva : rvas) {
        const auto offset = image->rva_to_offset(rva);
        check(offset == qv::test::reference_rva_to_offset(file, nt, rva), "rva_to_offset disagrees with the walk");
        const auto inside = image->rva_to_file_offset(rva);
        check(inside == (offset && *offset < size ? offset : std::nullopt), "rva_to_file_offset");
    }

    const std::uint64_t directory_at =
        image->kind() == image_kind::pe64 ? L::nt::data_directory_offset_pe64 : L::nt::data_directory_offset_pe32;
    const auto names = image->import_names();
    for (const auto& name : names) {
        const auto* begin = reinterpret_cast<const std::uint8_t*>(name.data());
        check(begin >= data && begin + name.size() < data + size, "import name outside the file");
        check(begin[name.size()] == 0, "import name without its terminator");
        check(name.size() <= qv::pe::pe_image::max_name_length, "import name too long");
    }
    const auto reference = qv::test::reference_import_names(file, nt, directory_at, qv::pe::pe_image::max_name_length);
    check(std::vector<std::string>(names.begin(), names.end()) == reference, "import names disagree with the walk");
    check(image->exports_dll_register_server() == qv::test::reference_self_registration(file, nt, directory_at),
          "self-registration test disagrees with the walk");
    // The function-level tables: the import descriptors are those of the name walk, every text lies inside the
    // file with its terminator, the budget holds, and a lookup finds what the table holds.
    const auto inside = [&](std::string_view text) {
        const auto* begin = reinterpret_cast<const std::uint8_t*>(text.data());
        return text.empty() || (begin >= data && begin + text.size() < data + size && begin[text.size()] == 0);
    };
    const auto imports = qv::pe::read_imports(*image);
    check(imports.size() == names.size(), "import descriptors disagree with the name walk");
    const auto check_modules = [&](const std::vector<qv::pe::imported_module>& modules) {
        std::size_t functions = 0;
        for (const auto& m : modules) {
            check(inside(m.name), "module name outside the file");
            functions += m.functions.size();
            for (const auto& f : m.functions)
                check(f.by_ordinal ? f.name.empty() : inside(f.name), "function name outside the file");
        }
        check(functions <= qv::pe::max_imported_functions, "imported functions over the budget");
    };
    check_modules(imports);
    const auto delayed = qv::pe::read_delay_imports(*image);
    check_modules(delayed);
    const auto delayNames = qv::pe::read_delay_imports(*image, false); // the walk's names-only reading
    check(delayNames.size() == delayed.size() && delayed.size() <= qv::pe::max_import_descriptors,
          "the delay-import names differ from the whole reading");
    if (const auto exports = qv::pe::read_exports(*image)) {
        check(exports->functions.size() <= 65536 && exports->names.size() <= 65536, "export table over its cap");
        for (const auto& [name, index] : exports->names) {
            check(inside(name), "export name outside the file");
            const auto* found = exports->find(name);
            check(!found || found->rva != 0, "find gave an empty slot");
        }
        for (const auto& f : exports->functions) {
            check(inside(f.forwarder), "forwarder outside the file");
            (void)qv::pe::split_forwarder(f.forwarder);
        }
    }
    // Resource lookups: any answer will do, as long as every read stays inside the file.
    for (std::uint32_t type : {0u, 16u, 24u})
        for (std::uint32_t name : {0u, 1u, 2u})
            (void)qv::pe::has_resource(*image, type, name);
    const auto version = qv::pe::find_version_resource(*image);
    check(version.is == qv::pe::version_resource::kind::one || version.data.empty(), "version bytes without a resource");
    check(version.data.empty() || (version.data.data() >= data && version.data.data() + version.data.size() <= data + size),
          "version resource outside the file");
    return 0;
}
