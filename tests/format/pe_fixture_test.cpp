// The reader on images made by the linker at build time (tests/fixtures/pe): 32- and 64-bit DLLs
// and programs whose imports and exports the fixture sources choose. Runs where the fixtures are
// built, in the cross build under Wine.
#include "format/pe/pe_image.h"
#include "pe_test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qv::pe::image_kind;
using qv::pe::pe_image;

std::vector<std::uint8_t> fixture(const std::string& name) {
    const char* root = std::getenv("QV_FIXTURES");
    if (!root)
        throw std::runtime_error("QV_FIXTURES is not set");
    auto bytes = qv::test::read_bytes(std::string(root) + "/pe/" + name);
    if (bytes.empty())
        throw std::runtime_error("fixture pe/" + name + " cannot be read");
    return bytes;
}

struct fixture_case {
    const char* file;
    image_kind kind;
    std::uint16_t machine;
    std::vector<std::string> imports;
    bool registers;
};

std::ostream& operator<<(std::ostream& os, const fixture_case& c) {
    return os << c.file;
}

const std::vector<std::string> dll_imports{"pefix_one.dll", "pefix_two.dll"};
// Linked with the import libraries of three, one and two, in that order: ld orders the descriptors
// by library name, not by command-line order.
const std::vector<std::string> exe_imports{"pefix_one.dll", "pefix_three.dll", "pefix_two.dll"};

const fixture_case fixture_cases[] = {
    // The linker sorts the export names: "Aaa" < "Bbb" < "DllRegisterServer".
    {"selfreg_only.dll", image_kind::pe64, 34404, dll_imports, true},
    {"selfreg_second.dll", image_kind::pe64, 34404, dll_imports, false},
    {"selfreg_third.dll", image_kind::pe64, 34404, dll_imports, true},
    {"selfreg_lower.dll", image_kind::pe64, 34404, dll_imports, false},
    {"selfreg_only32.dll", image_kind::pe, 332, dll_imports, true},
    {"app.exe", image_kind::pe64, 34404, exe_imports, false},
    {"app32.exe", image_kind::pe, 332, exe_imports, false},
};

class PeLinkedImage : public testing::TestWithParam<fixture_case> {};

TEST_P(PeLinkedImage, KindMachineImportsAndSelfRegistration) {
    const auto& c = GetParam();
    const auto bytes = fixture(c.file);
    const auto image = pe_image::open(qv::test::span_of(bytes));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->kind(), c.kind);
    EXPECT_EQ(image->machine(), c.machine);
    const auto names = image->import_names();
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()), c.imports);
    EXPECT_EQ(image->exports_dll_register_server(), c.registers);
}

TEST_P(PeLinkedImage, EveryPrefixGivesACleanOutcome) {
    const auto& c = GetParam();
    const auto bytes = fixture(c.file);
    for (std::size_t n = 0; n <= bytes.size(); ++n) {
        const std::vector<std::uint8_t> prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
        const auto span = qv::test::span_of(prefix);
        const auto image = pe_image::open(span);
        if (!image)
            continue;
        const auto names = image->import_names();
        ASSERT_LE(names.size(), c.imports.size()) << n;
        if (image->kind() == c.kind) {
            for (std::size_t i = 0; i < names.size(); ++i)
                ASSERT_EQ(names[i], c.imports[i]) << n;
            ASSERT_TRUE(!image->exports_dll_register_server() || c.registers) << n;
        }
        const std::uint64_t at = image->kind() == image_kind::pe64 ? 136 : 120;
        ASSERT_EQ(std::vector<std::string>(names.begin(), names.end()),
                  qv::test::reference_import_names(span, image->nt_headers_offset(), at, pe_image::max_name_length))
            << n;
        ASSERT_EQ(image->exports_dll_register_server(),
                  qv::test::reference_self_registration(span, image->nt_headers_offset(), at))
            << n;
    }
    // The whole file opens with everything.
    const auto whole = pe_image::open(qv::test::span_of(bytes));
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->import_names().size(), c.imports.size());
}

INSTANTIATE_TEST_SUITE_P(Fixtures, PeLinkedImage, testing::ValuesIn(fixture_cases),
                         [](const auto& info) { return qv::test::case_name(info.param.file); });

} // namespace
