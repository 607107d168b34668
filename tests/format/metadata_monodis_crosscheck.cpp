// The metadata reader against `monodis` on every assembly of Mono's cache (or of QV_REAL_CLI_DIRS, split
// at ':'): each opens, and its assembly references (version, name, flags, key or token bytes) and module
// references equal what monodis prints. Native only: it runs a program.
#include "format/metadata/metadata.h"
#include "image_writer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>

namespace {

// What monodis prints of the references, one line per reference: "version name flags key-bytes" for
// --assemblyref, the name for --moduleref.
std::vector<std::string> monodis(const std::string& option, const std::string& path) {
    std::vector<std::string> refs;
    std::string output;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(("monodis " + option + " '" + path + "' 2>/dev/null").c_str(), "r"), pclose);
    for (char buffer[65536]; pipe && !std::feof(pipe.get());)
        output.append(buffer, std::fread(buffer, 1, sizeof buffer, pipe.get()));
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const auto at = line.find(": ");
        if (option == "--moduleref" && at != std::string::npos && line.rfind("ModuleRef", 0) != 0)
            refs.push_back(line.substr(at + 2));
        else if (line.find(": Version=") != std::string::npos && line[0] != '0')
            refs.push_back(line.substr(line.find('=') + 1));
        else if (!refs.empty() && (line.rfind("\tName=", 0) == 0 || line.rfind("\tFlags=", 0) == 0))
            refs.back() += " " + line.substr(line.find('=') + 1);
        else if (!refs.empty() && line.rfind("0x", 0) == 0 && at != std::string::npos)
            for (std::istringstream bytes(line.substr(at + 2)); bytes >> line;)
                refs.back() += " " + line;
    }
    return refs;
}

std::string describe(const qv::metadata::assembly_ref_row& r) {
    char text[64];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u %s 0x%08X", r.version.major, r.version.minor, r.version.build,
                  r.version.revision, "%s", r.flags);
    std::string out = text;
    out.replace(out.find("%s"), 2, r.name);
    for (std::uint64_t i = 0; i < r.public_key_or_token.size(); ++i) {
        std::snprintf(text, sizeof text, " %02X", *r.public_key_or_token.u8(i));
        out += text;
    }
    return out;
}

TEST(MetadataRealAssemblies, ReferencesAgreeWithMonodis) {
    const char* dirs = std::getenv("QV_REAL_CLI_DIRS");
    std::stringstream folders(dirs ? dirs : "/usr/lib/mono/gac");
    std::size_t assemblies = 0;
    std::error_code error;
    for (std::string dir; std::getline(folders, dir, ':');)
        for (const auto& file : std::filesystem::recursive_directory_iterator(dir, error)) {
            const std::string path = file.path().string(), ext = file.path().extension().string();
            if (!file.is_regular_file() || (ext != ".dll" && ext != ".exe"))
                continue;
            SCOPED_TRACE(path);
            const auto bytes = qv::test::read_bytes(path);
            const auto image = qv::pe::pe_image::open(qv::format::byte_span(bytes.data(), bytes.size()));
            ASSERT_TRUE(image);
            const auto md = qv::metadata::metadata_reader::open(*image);
            ASSERT_TRUE(md) << "an assembly of the cache opens";
            ++assemblies;
            std::vector<std::string> ours, modules;
            for (std::uint32_t row = 1; row <= md->rows(qv::metadata::table::AssemblyRef); ++row) {
                const auto ref = md->assembly_ref(row);
                ASSERT_TRUE(ref) << row;
                ours.push_back(describe(*ref));
            }
            EXPECT_EQ(ours, monodis("--assemblyref", path));
            for (std::uint32_t row = 1; row <= md->rows(qv::metadata::table::ModuleRef); ++row)
                modules.push_back(md->module_ref(row).value_or("(unreadable)"));
            EXPECT_EQ(modules, monodis("--moduleref", path));
            EXPECT_TRUE(md->assembly() && !md->assembly()->name.empty());
        }
    std::printf("%zu assemblies compared\n", assemblies);
    if (!dirs)
        EXPECT_GE(assemblies, 100u) << "Mono's cache is installed by scripts/setup";
}

} // namespace
