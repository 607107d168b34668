// The reader on real images no one here wrote, checked against an independent tool: every file of
// Wine's Windows-side library folders is read by the reader and by the cross binutils' `objdump -p`,
// and the two must agree on the kind, the machine word, all sixteen data-directory entries, the
// import names in table order, and the self-registration test (true exactly when
// "DllRegisterServer" stands at an even place of the export name table).
// Native only: it runs a program. Folders: QV_REAL_PE_DIRS (separated by ':'), else Wine's own.
#include "format/pe/pe_image.h"
#include "pe_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;
using qv::pe::image_kind;
using qv::pe::pe_image;

constexpr const char* objdump_program = "x86_64-w64-mingw32-objdump";
constexpr const char* wine_x64_dir = "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows";
constexpr const char* wine_x86_dir = "/usr/lib/x86_64-linux-gnu/wine/i386-windows";
// The Debian 12 Wine package holds several hundred images; far fewer means the folder is not what
// this test was written against.
constexpr std::size_t min_images = 400;

std::vector<std::string> folders() {
    std::vector<std::string> result;
    if (const char* list = std::getenv("QV_REAL_PE_DIRS")) {
        std::stringstream in(list);
        for (std::string dir; std::getline(in, dir, ':');)
            if (!dir.empty())
                result.push_back(dir);
        return result;
    }
    result.push_back(wine_x64_dir);
    if (fs::is_directory(wine_x86_dir))
        result.push_back(wine_x86_dir);
    return result;
}

std::vector<std::string> files() {
    std::vector<std::string> result;
    for (const auto& dir : folders()) {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(dir, error)) {
            if (entry.is_regular_file())
                result.push_back(entry.path().string());
        }
    }
    std::sort(result.begin(), result.end());
    return result;
}

// What objdump says of one file.
struct objdump_view {
    std::string format; // "pei-x86-64", "pei-i386", ... or empty when objdump sees no PE image
    unsigned magic = 0;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> directory; // rva, size
    std::vector<std::string> imports;
    std::vector<std::string> export_names; // the name-pointer table, in order
};

std::string shell_quote(const std::string& text) {
    std::string quoted = "'";
    for (char ch : text)
        quoted += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    return quoted + "'";
}

// Runs objdump; false when it cannot be run at all.
bool run_objdump(const std::string& path, std::string& output) {
    const std::string command = std::string(objdump_program) + " -p " + shell_quote(path) + " 2>/dev/null";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe)
        return false;
    std::array<char, 65536> buffer;
    std::size_t n;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0)
        output.append(buffer.data(), n);
    const int status = pclose(pipe.release());
    // 127: the shell found no such program. Other failures (a file that is no object) still
    // leave what objdump printed to judge.
    return status != -1 && !(WIFEXITED(status) && WEXITSTATUS(status) == 127);
}

objdump_view parse(const std::string& output) {
    objdump_view view;
    enum class block { none, imports, export_names } in = block::none;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const bool top_level = !line.empty() && line[0] != ' ' && line[0] != '\t';
        if (top_level)
            in = block::none;
        if (auto at = line.find("file format "); at != std::string::npos && view.format.empty()) {
            view.format = line.substr(at + 12);
            view.format.erase(view.format.find_last_not_of(" \r") + 1);
        } else if (line.rfind("Magic", 0) == 0) {
            view.magic =
                static_cast<unsigned>(std::stoul(line.substr(line.find_first_of("0123456789abcdef", 5)), nullptr, 16));
        } else if (line.rfind("Entry ", 0) == 0) {
            std::istringstream fields(line.substr(6));
            std::string index, rva, size;
            fields >> index >> rva >> size;
            view.directory.emplace_back(static_cast<std::uint32_t>(std::stoull(rva, nullptr, 16)),
                                        static_cast<std::uint32_t>(std::stoull(size, nullptr, 16)));
        } else if (line.rfind("The Import Tables", 0) == 0) {
            // Only this block: the names of delay-load imports (directory 13), which the reader
            // does not read, would stand under a heading of their own.
            in = block::imports;
        } else if (line.rfind("[Ordinal/Name Pointer] Table", 0) == 0) {
            in = block::export_names;
        } else if (in == block::imports && line.rfind("\tDLL Name: ", 0) == 0) {
            view.imports.push_back(line.substr(11));
        } else if (in == block::export_names) {
            if (line.empty()) {
                in = block::none;
            } else if (auto close = line.find("] "); close != std::string::npos) {
                view.export_names.push_back(line.substr(close + 2));
            }
        }
    }
    return view;
}

const std::vector<std::string>& all_files() {
    static const std::vector<std::string> list = files();
    return list;
}

TEST(PeRealImages, FoldersHoldTheImagesThisTestWasWrittenFor) {
    ASSERT_TRUE(std::getenv("QV_REAL_PE_DIRS") || fs::is_directory(wine_x64_dir))
        << wine_x64_dir << " is missing: install Debian's wine64 package (scripts/native-test does)";
    ASSERT_FALSE(all_files().empty()) << "no files in the folders";
    std::size_t images = 0;
    for (const auto& path : all_files()) {
        const auto bytes = qv::test::read_bytes(path);
        images += pe_image::open(qv::test::span_of(bytes)).has_value();
    }
    EXPECT_GE(images, std::getenv("QV_REAL_PE_DIRS") ? 1 : min_images);
    std::string output;
    ASSERT_TRUE(run_objdump(all_files().front(), output)) << objdump_program << " cannot be run";
}

class PeRealImage : public testing::TestWithParam<std::string> {};

TEST_P(PeRealImage, AgreesWithObjdump) {
    const std::string& path = GetParam();
    const auto bytes = qv::test::read_bytes(path);
    ASSERT_FALSE(bytes.empty()) << path;
    std::string output;
    ASSERT_TRUE(run_objdump(path, output)) << objdump_program << " cannot be run";
    const objdump_view tool = parse(output);
    const auto span = qv::test::span_of(bytes);
    const auto c = qv::pe::classify(span);
    const auto image = pe_image::open(span);

    if (tool.format.rfind("pei-", 0) != 0) {
        // Not an image to objdump (an import library, say): not one to the reader either.
        EXPECT_FALSE(image) << path << " is " << tool.format;
        return;
    }
    ASSERT_EQ(c.status, qv::pe::image_status::usable);
    std::uint16_t machine = 0;
    image_kind kind = image_kind::invalid;
    if (tool.format == "pei-x86-64" && tool.magic == 0x20B) {
        machine = 34404;
        kind = image_kind::pe64;
    } else if (tool.format == "pei-i386" && tool.magic == 0x10B) {
        machine = 332;
        kind = image_kind::pe;
    } else {
        FAIL() << path << ": no expectation for format " << tool.format << " with magic " << tool.magic;
    }
    ASSERT_EQ(c.kind, kind) << qv::pe::kind_name(c.kind);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->machine(), machine);

    ASSERT_EQ(tool.directory.size(), 16u) << "objdump printed " << tool.directory.size() << " directory entries";
    for (std::uint32_t i = 0; i < 16; ++i) {
        EXPECT_EQ(image->directory(i)->rva, tool.directory[i].first) << "entry " << i;
        EXPECT_EQ(image->directory(i)->size, tool.directory[i].second) << "entry " << i;
    }

    const auto names = image->import_names();
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()), tool.imports);

    bool even_place = false;
    for (std::size_t i = 0; i < tool.export_names.size(); i += 2)
        even_place = even_place || tool.export_names[i] == "DllRegisterServer";
    EXPECT_EQ(image->exports_dll_register_server(), even_place);
}

INSTANTIATE_TEST_SUITE_P(Wine, PeRealImage, testing::ValuesIn(all_files()), [](const auto& info) {
    std::string name =
        fs::path(info.param).parent_path().filename().string() + "_" + fs::path(info.param).filename().string();
    for (char& ch : name)
        if (!std::isalnum(static_cast<unsigned char>(ch)))
            ch = '_';
    return name;
});

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(PeRealImage);

} // namespace
