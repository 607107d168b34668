// metadata_refs FILE...: reads the assembly and module references of each file with our metadata reader
// and prints one line per reference, as the reference walk will start from them. bench/metadata-vs-monodis
// builds it natively and times it against monodis over Mono's cache.
#include "format/metadata/metadata.h"

#include <cstdio>
#include <fstream>
#include <vector>

int main(int argc, char** argv) {
    using namespace qv::metadata;
    std::size_t assemblies = 0, references = 0;
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary | std::ios::ate);
        std::vector<std::uint8_t> bytes(in ? static_cast<std::size_t>(in.tellg()) : 0);
        in.seekg(0).read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        const auto image = qv::pe::pe_image::open(qv::format::byte_span(bytes.data(), bytes.size()));
        const auto md = image ? metadata_reader::open(*image) : std::nullopt;
        if (!md) {
            std::printf("%s: not an assembly\n", argv[i]);
            continue;
        }
        ++assemblies;
        for (std::uint32_t row = 1; row <= md->rows(table::AssemblyRef); ++row) {
            if (const auto ref = md->assembly_ref(row)) {
                ++references;
                std::printf("%s: %s %u.%u.%u.%u %s\n", argv[i], ref->name.c_str(), ref->version.major,
                            ref->version.minor, ref->version.build, ref->version.revision, ref->culture.c_str());
            }
        }
        for (std::uint32_t row = 1; row <= md->rows(table::ModuleRef); ++row)
            std::printf("%s: module %s\n", argv[i], md->module_ref(row).value_or("?").c_str());
    }
    std::fprintf(stderr, "%zu assemblies, %zu assembly references\n", assemblies, references);
    return 0;
}
