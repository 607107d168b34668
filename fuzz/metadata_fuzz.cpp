// libFuzzer target of the metadata reader: the bytes as a PE image and as a bare metadata root; every
// column of the first rows of every table, the typed rows, and heap reads at the offsets the rows hold.
// It stops when a row the layout promised cannot be read or a blob lies outside the input.
#include "format/metadata/metadata.h"

#include <cstdio>
#include <cstdlib>

using namespace qv::metadata;

static void check(bool ok, const char* what) {
    if (!ok)
        std::fprintf(stderr, "metadata_fuzz: %s\n", what), std::abort();
}

static void exercise(const metadata_reader& md, const std::uint8_t* data, std::size_t size) {
    for (std::uint32_t t = 0; t < table_count; ++t) {
        const auto which = static_cast<table>(t);
        const std::uint32_t rows = md.rows(which), columns = metadata_reader::columns(which);
        check(!md.column(which, 0, 0) && !md.column(which, rows + 1, 0) && !md.column(which, 1, columns), "bounds");
        for (std::uint32_t row = 1; row <= rows && row <= 64; ++row)
            for (std::uint32_t c = 0; c < columns; ++c) {
                const auto value = md.column(which, row, c);
                check(value.has_value(), "a row of the layout cannot be read");
                (void)md.string(*value), (void)md.guid(*value);
                const auto blob = md.blob(*value);
                check(!blob || blob->empty() || (blob->data() >= data && blob->data() + blob->size() <= data + size),
                      "a blob outside the input");
            }
    }
    (void)md.assembly(), (void)md.module_name();
    for (std::uint32_t row = 0; row <= 64; ++row)
        (void)md.assembly_ref(row), (void)md.module_ref(row), (void)md.impl_map(row), (void)md.file(row);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const qv::format::byte_span bytes(data, size);
    if (const auto image = qv::pe::pe_image::open(bytes); image && read_cli_header(*image))
        if (const auto md = metadata_reader::open(*image))
            exercise(*md, data, size);
    if (const auto md = metadata_reader::open(bytes))
        exercise(*md, data, size);
    const auto c = read_compressed(bytes, 0);
    check(!c || (c->length <= size && (c->length == 1 || c->length == 2 || c->length == 4)), "compressed length");
    return 0;
}
