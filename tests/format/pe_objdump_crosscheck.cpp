// The reader against `objdump -p` on every file of Wine's library folders (or of QV_REAL_PE_DIRS, split at
// ':'): kind, machine, directory, import names, self-registration. Native only: it runs a program.
#include "format/pe/pe_image.h"
#include "format/pe/pe_tables.h"
#include "image_writer.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>

namespace {

struct objdump_view { // format: "pei-x86-64", "pei-i386", ...; empty for a file that is no object
    std::string format;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> directory;
    std::vector<std::string> imports;
    std::vector<std::vector<std::string>> functions; // of each import: "Name", or "#ordinal"
    std::vector<std::string> forwarders;             // of each export address: the forwarder, or empty
    bool registers = false; // whether "DllRegisterServer" stands at an even place of the export name table
};

objdump_view objdump(const std::string& path) {
    std::string command = "x86_64-w64-mingw32-objdump -p '" + path + "' 2>/dev/null", output; // no quotes in path
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    for (char buffer[65536]; pipe && !std::feof(pipe.get());)
        output.append(buffer, std::fread(buffer, 1, sizeof buffer, pipe.get()));
    objdump_view view;
    int place = 0;
    enum { none, imports, exports } in = none; // delay-load imports stand under a heading of their own
    std::istringstream lines(output);
    for (std::string line, index, rva, size; std::getline(lines, line);) {
        if (line.empty() ? in == exports : line[0] != ' ' && line[0] != '\t')
            in = none;
        if (auto at = line.find("file format "); at != std::string::npos && view.format.empty())
            view.format = line.substr(at + 12, line.find_last_not_of(" \r") + 1 - at - 12);
        else if (line.rfind("Entry ", 0) == 0 && std::istringstream(line.substr(6)) >> index >> rva >> size)
            view.directory.emplace_back(std::stoul(rva, nullptr, 16), std::stoul(size, nullptr, 16));
        else if (line.rfind("The Import Tables", 0) == 0 || line.rfind("[Ordinal/Name Pointer] Table", 0) == 0)
            in = line[0] == 'T' ? imports : exports;
        else if (in == imports && line.rfind("\tDLL Name: ", 0) == 0)
            view.imports.push_back(line.substr(11)), view.functions.emplace_back();
        else if (in == imports && !view.functions.empty() && line.size() > 1 && line[0] == '\t' &&
                 std::isxdigit(static_cast<unsigned char>(line[1]))) { // "\tTHUNK\t HINT  NAME" or "... <none>"
            std::istringstream fields(line);
            std::string thunk, hint, name;
            fields >> thunk >> hint >> name;
            view.functions.back().push_back(name == "<none>" ? "#" + std::to_string(std::stoull(thunk, nullptr, 16) & 0xFFFF)
                                                             : name);
        } else if (auto at = line.find(" Forwarder RVA -- "); at != std::string::npos && line.rfind("\t[", 0) == 0)
            view.forwarders.push_back(line.substr(at + 18));
        else if (line.rfind("\t[", 0) == 0 && line.find(" Export RVA") != std::string::npos)
            view.forwarders.emplace_back();
        else if (in == exports && line.find("] ") != std::string::npos)
            view.registers |= place++ % 2 == 0 && line.substr(line.find("] ") + 2) == "DllRegisterServer";
    }
    return view;
}

TEST(PeRealImages, AgreeWithObjdump) {
    const char* dirs = std::getenv("QV_REAL_PE_DIRS");
    std::stringstream folders(dirs ? dirs : "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows:"
                                            "/usr/lib/x86_64-linux-gnu/wine/i386-windows");
    std::size_t images = 0;
    std::error_code error; // a folder that is not there holds nothing
    for (std::string dir; std::getline(folders, dir, ':');)
        for (const auto& file : std::filesystem::directory_iterator(dir, error)) {
            const std::string path = file.path().string();
            const auto bytes = qv::test::read_bytes(path);
            const auto image = qv::pe::pe_image::open(qv::format::byte_span(bytes.data(), bytes.size()));
            const objdump_view tool = objdump(path);
            const bool x64 = tool.format == "pei-x86-64";
            if (!x64 && tool.format != "pei-i386") {
                EXPECT_TRUE(tool.format.rfind("pei-", 0) != 0 && !image) << path << ": " << tool.format;
                continue;
            }
            ++images;
            ASSERT_TRUE(image) << path;
            EXPECT_EQ(std::pair(image->kind(), int(image->machine())),
                      std::pair(x64 ? qv::pe::image_kind::pe64 : qv::pe::image_kind::pe, x64 ? 34404 : 332)) << path;
            ASSERT_EQ(tool.directory.size(), 16u) << path;
            for (std::uint32_t i = 0; i < 16; ++i)
                EXPECT_EQ(std::pair(image->directory(i)->rva, image->directory(i)->size), tool.directory[i]) << path;
            const auto names = image->import_names();
            EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()), tool.imports) << path;
            EXPECT_EQ(image->exports_dll_register_server(), tool.registers) << path;
            std::vector<std::vector<std::string>> functions;
            for (const auto& module : qv::pe::read_imports(*image)) {
                functions.emplace_back();
                for (const auto& f : module.functions)
                    functions.back().push_back(f.by_ordinal ? "#" + std::to_string(f.ordinal) : std::string(f.name));
            }
            EXPECT_EQ(functions, tool.functions) << path;
            std::vector<std::string> forwarders;
            if (const auto exports = qv::pe::read_exports(*image))
                for (const auto& f : exports->functions)
                    if (f.rva) // objdump lists only the slots that hold an address
                        forwarders.emplace_back(f.forwarder);
            EXPECT_EQ(forwarders, tool.forwarders) << path;
        }
    // Debian's Wine holds several hundred: far fewer, and objdump did not run or the folders are not these.
    EXPECT_GE(images, dirs ? 1u : 400u);
}

} // namespace
