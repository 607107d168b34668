// The metadata reader against `monodis` on every assembly of Mono's cache (or of QV_REAL_CLI_DIRS, split
// at ':'): each opens, its assembly references (version, name, flags, key or token bytes) and module
// references equal what monodis prints, and so do the string arguments of its assembly's attributes.
// Native only: it runs a program.
#include "format/metadata/attribute_blob.h"
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
std::string monodis_output(const std::string& option, const std::string& path) {
    std::string output;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(("monodis " + option + " '" + path + "' 2>/dev/null").c_str(), "r"), pclose);
    for (char buffer[65536]; pipe && !std::feof(pipe.get());)
        output.append(buffer, std::fread(buffer, 1, sizeof buffer, pipe.get()));
    return output;
}

std::vector<std::string> monodis(const std::string& option, const std::string& path) {
    std::vector<std::string> refs;
    std::istringstream lines(monodis_output(option, path));
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

// The assemblies below the folders of QV_REAL_CLI_DIRS, or of Mono's cache.
std::vector<std::string> assembly_paths() {
    const char* dirs = std::getenv("QV_REAL_CLI_DIRS");
    std::stringstream folders(dirs ? dirs : "/usr/lib/mono/gac");
    std::vector<std::string> paths;
    std::error_code error;
    for (std::string dir; std::getline(folders, dir, ':');)
        for (const auto& file : std::filesystem::recursive_directory_iterator(dir, error)) {
            const std::string ext = file.path().extension().string();
            if (file.is_regular_file() && (ext == ".dll" || ext == ".exe"))
                paths.push_back(file.path().string());
        }
    return paths;
}

TEST(MetadataRealAssemblies, ReferencesAgreeWithMonodis) {
    std::size_t assemblies = 0;
    for (const std::string& path : assembly_paths()) {
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
    if (!std::getenv("QV_REAL_CLI_DIRS"))
        EXPECT_GE(assemblies, 100u) << "Mono's cache is installed by scripts/setup";
}

// The attributes of the assembly row whose constructor is a member reference: a text exactly when
// monodis shows a constructor whose first parameter is a string, and the text monodis shows. monodis
// prints a string's bytes up to a NUL, past its length, so only a string that ends its blob (nothing
// but the zero count of named arguments behind it) is compared whole; others as what monodis begins with.
TEST(MetadataRealAssemblies, AssemblyAttributeStringsAgreeWithMonodis) {
    using namespace qv::metadata;
    std::size_t whole = 0;
    for (const std::string& path : assembly_paths()) {
        SCOPED_TRACE(path);
        const auto bytes = qv::test::read_bytes(path);
        const auto image = qv::pe::pe_image::open(qv::format::byte_span(bytes.data(), bytes.size()));
        const auto md = image ? metadata_reader::open(*image) : std::nullopt;
        ASSERT_TRUE(md);
        const std::string printed = "\n" + monodis_output("--customattr", path);
        for (std::uint32_t row = 1; row <= md->rows(table::CustomAttribute); ++row) {
            const auto attribute = md->custom_attribute(row);
            ASSERT_TRUE(attribute) << row;
            const bool memberRef = attribute->type >> 24 == std::uint32_t(table::MemberRef);
            if (attribute->parent != token(table::Assembly, 1) || !memberRef)
                continue;
            const auto constructor = md->member_ref(attribute->type & 0xFFFFFF);
            ASSERT_TRUE(constructor) << row;
            const auto text = decode_string_argument(constructor->signature, attribute->value);
            // "<row>: Assembly: 1: instance void class <type>::'.ctor'(<parameters>) [<arguments>]"
            const auto line = printed.find("\n" + std::to_string(row) + ": Assembly: 1: ");
            const auto parameters = printed.find("'.ctor'(", line);
            const auto arguments = printed.find(") [", parameters);
            ASSERT_TRUE(line != std::string::npos && arguments != std::string::npos) << row;
            EXPECT_EQ(text.has_value(), printed.compare(parameters + 8, 6, "string") == 0) << row;
            if (!text)
                continue;
            const std::size_t width = text->size() < 0x80 ? 1 : text->size() < 0x4000 ? 2 : 4;
            const auto value = attribute->value;
            const bool last = value.size() == 2 + width + text->size() + 2 && value.u16(value.size() - 2) == 0;
            const std::string expected = "\"" + *text + (last ? "\"]" : "");
            EXPECT_EQ(printed.compare(arguments + 3, expected.size(), expected), 0)
                << row << ": " << printed.substr(arguments + 3, expected.size() + 8);
            whole += last;
        }
    }
    std::printf("%zu strings compared whole\n", whole);
    if (!std::getenv("QV_REAL_CLI_DIRS"))
        EXPECT_GE(whole, 500u);
}

} // namespace
