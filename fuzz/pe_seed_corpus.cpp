// Writes the crafted seeds of the PE fuzz corpus: small images from the test-side writer that reach
// every branch of the reader (both layouts, imports, exports with the registration name at even and
// odd places, a section with no raw bytes, the kinds that do not open).
//   pe_seed_corpus <folder>
#include "image_writer.h"

#include <cstdio>
#include <fstream>
#include <string>

namespace {

namespace L = qv::pe::layout;
using qv::test::image_writer;

void write(const std::string& folder, const std::string& name, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(folder + "/written-" + name + ".bin", std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        std::fprintf(stderr, "pe_seed_corpus: cannot write %s\n", name.c_str());
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: pe_seed_corpus <folder>\n");
        return 2;
    }
    const std::string folder = argv[1];
    write(folder, "pe64-dll",
          image_writer()
              .section(".text", std::string(0x10, '\xC3'))
              .section(".bss", "", 0x400)
              .import("kernel32.dll")
              .import("ole32.dll")
              .exports({"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer"})
              .build()
              .bytes);
    write(folder, "pe32-dll",
          image_writer()
              .machine(L::machine::i386)
              .pe32plus(false)
              .import("msvcrt.dll")
              .exports({"A", "DllRegisterServer"})
              .build()
              .bytes);
    write(folder, "pe32-exe-imports",
          image_writer()
              .machine(L::machine::i386)
              .pe32plus(false)
              .dll(false)
              .import("user32.dll")
              .import("gdi32.dll")
              .import("advapi32.dll")
              .build()
              .bytes);
    write(folder, "x64-magic267",
          image_writer()
              .machine(L::machine::amd64)
              .pe32plus(false)
              .import("a.dll")
              .exports({"DllRegisterServer"})
              .build()
              .bytes);
    write(folder, "ia64", image_writer().machine(L::machine::ia64).build().bytes);
    write(folder, "arm", image_writer().machine(L::machine::armnt).pe32plus(false).build().bytes);
    write(folder, "header-at-0x40", image_writer().header_offset(0x40).import("b.dll").build().bytes);

    std::vector<std::uint8_t> dos(64, 0);
    dos[0] = 'M';
    dos[1] = 'Z';
    write(folder, "dos", dos);
    std::vector<std::uint8_t> ne(0x50, 0);
    qv::test::put16(ne, 0, L::dos::magic);
    qv::test::put16(ne, 24, 0x40);
    qv::test::put32(ne, 60, 0x40);
    qv::test::put_bytes(ne, 0x40, "NE");
    write(folder, "ne", ne);
    return 0;
}
