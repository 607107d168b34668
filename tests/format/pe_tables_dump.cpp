// pe_tables_dump FILE...: for each file, what the function-level table readers make of it, tab-separated:
//   file <path as given>
//   import <dll> <function> ...     each import descriptor ("#12" for an ordinal)
//   delay <dll> <function> ...      each delay-import descriptor
// for the cross-check against llvm-readobj (check_tables.py).
#include "format/pe/pe_tables.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

void print(const char* kind, const std::vector<qv::pe::imported_module>& modules) {
    for (const auto& module : modules) {
        std::printf("%s\t%.*s", kind, static_cast<int>(module.name.size()), module.name.data());
        for (const auto& f : module.functions)
            f.by_ordinal ? std::printf("\t#%u", f.ordinal)
                         : std::printf("\t%.*s", static_cast<int>(f.name.size()), f.name.data());
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::printf("file\t%s\n", argv[i]);
        const auto image = qv::pe::pe_image::open(
            qv::format::byte_span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
        if (!image)
            continue;
        print("import", qv::pe::read_imports(*image));
        print("delay", qv::pe::read_delay_imports(*image));
    }
    return 0;
}
