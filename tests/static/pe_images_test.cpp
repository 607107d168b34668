// The image layers over files: mapping states, classification, the table accessors, and the export
// and import reads on images built by the cross compilers and on the prefix's own system files.
#include "static/pe_images.h"
#include "test_support.h"
#include "toolkit/string_convert.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace qv::test;
using qv::pe::image_kind;
using ::testing::ElementsAre;

namespace {

std::string mz_header(uint16_t relocationOffset, int32_t newHeader, size_t size) {
    std::string bytes(size, '\0');
    bytes[0] = 'M';
    bytes[1] = 'Z';
    bytes[24] = static_cast<char>(relocationOffset & 0xFF);
    bytes[25] = static_cast<char>(relocationOffset >> 8);
    for (int i = 0; i < 4; ++i)
        bytes[60 + i] = static_cast<char>((static_cast<uint32_t>(newHeader) >> (8 * i)) & 0xFF);
    return bytes;
}

struct file_case {
    const char* what;
    std::wstring path;
    DWORD openStatus;
    DWORD exeStatus; // CExeImage
    image_kind kind;
    DWORD peStatus; // CPEImage
    bool usable;
    DWORD machine;
};

TEST(PEImages, ClassifyFilesOnDisk) {
    temp_dir tmp;
    const file_case table[] = {
        {"missing file", tmp / L"absent.dll", 1, 1, image_kind::invalid, 1, false, 0},
        {"folder", tmp.mkdir(L"folder.dll"), 1, 1, image_kind::invalid, 1, false, 0},
        {"empty file cannot be mapped", tmp.write(L"empty.dll", ""), 2, 1, image_kind::invalid, 1, false, 0},
        {"63 bytes", tmp.write(L"short.dll", mz_header(64, 64, 63)), 0, 2, image_kind::invalid, 2, false, 0},
        {"text", tmp.write(L"text.dll", std::string(200, 'x')), 0, 2, image_kind::invalid, 2, false, 0},
        {"DOS program", tmp.write(L"dos.exe", mz_header(0, 0, 64)), 0, 0, image_kind::dos, 2, false, 0},
        {"negative header offset", tmp.write(L"neg.exe", mz_header(64, -4, 128)), 0, 0, image_kind::invalid, 2, false,
         0},
        {"header offset = size", tmp.write(L"end.exe", mz_header(64, 128, 128)), 0, 0, image_kind::invalid, 2, false,
         0},
        {"x64 DLL", fixture(L"walk\\lib\\gamma.dll"), 0, 0, image_kind::pe64, 0, true, 34404},
        {"x86 DLL", fixture(L"walk\\path32\\shadow.dll"), 0, 0, image_kind::pe, 0, true, 332},
        {"x86 exe", fixture(L"walk\\app32\\app32.exe"), 0, 0, image_kind::pe, 0, true, 332},
        {"system exe", system_dir() + L"\\notepad.exe", 0, 0, image_kind::pe64, 0, true, 34404},
    };
    for (const auto& c : table) {
        SCOPED_TRACE(c.what);
        CExeImage exe(c.path);
        EXPECT_EQ(exe.OpenStatus(), c.openStatus);
        EXPECT_EQ(exe.Status(), c.exeStatus);
        EXPECT_EQ(exe.Kind(), c.kind);
        CPEImage pe(c.path);
        EXPECT_EQ(pe.Status(), c.peStatus);
        EXPECT_EQ(pe.NtHeaders() != nullptr, c.usable);
        EXPECT_EQ(pe.GetMachine(), c.machine);
        if (c.usable) {
            EXPECT_EQ(pe.NtHeaders(), pe.View() + pe.HeaderOffset());
            EXPECT_EQ(0, memcmp(pe.NtHeaders(), "PE\0\0", 4));
        }
        EXPECT_FALSE(pe.ImageError().bError);
    }
}

TEST(PEImages, KindAndStatusWords) {
    const std::pair<image_kind, const wchar_t*> kinds[] = {
        {image_kind::invalid, L"Invalid"}, {image_kind::dos, L"DOS"},       {image_kind::ne, L"NE"},
        {image_kind::vxd, L"VXD"},         {image_kind::lx, L"LX"},         {image_kind::pe, L"PE"},
        {image_kind::pe64, L"PE64"},       {image_kind::peia64, L"PEIA64"}, {image_kind::pearm, L"PEARM"}};
    for (const auto& [kind, name] : kinds)
        EXPECT_STREQ(qv::WidenAscii(qv::pe::kind_name(kind)).c_str(), name);
    EXPECT_EQ(CExeImage(fixture(L"walk\\lib\\gamma.dll")).KindName(), L"PE64");

    const std::pair<DWORD, const wchar_t*> words[] = {{0, L"No error"},        {1, L"File not found"},
                                                      {2, L"Not a PE file"},   {3, L"General failure"},
                                                      {4, L"<Error ???>"},     {0xFFFFFFFF, L"<Error ???>"}};
    for (const auto& [status, word] : words)
        EXPECT_STREQ(ImageStatusText(status), word);
}

TEST(PEImages, DirectoryAccessors) {
    CPEImage image(fixture(L"walk\\app\\app.exe"));
    ASSERT_NE(image.NtHeaders(), nullptr);

    EXPECT_EQ(image.DirectorySize(16), -1);
    EXPECT_EQ(image.DirectoryRva(16), -1);
    EXPECT_EQ(image.DirectoryPointer(16), CPEImage::InvalidDirectory);
    EXPECT_EQ(image.DirectoryPointer(0xFFFFFFFF), CPEImage::InvalidDirectory);

    // The import directory: its pointer is the view at the RVA's file offset.
    ASSERT_GT(image.DirectorySize(1), 0);
    LONGLONG rva = image.DirectoryRva(1);
    LONGLONG offset = image.RvaToOffset(static_cast<DWORD>(rva));
    ASSERT_GE(offset, 0);
    EXPECT_EQ(image.DirectoryPointer(1), image.View() + offset);
    EXPECT_EQ(image.RvaToPointer(static_cast<DWORD>(rva)), image.View() + offset);

    // Directory 4 (certificates) is empty in these images: RVA 0 gives a null pointer.
    EXPECT_EQ(image.DirectoryRva(4), 0);
    EXPECT_EQ(image.DirectoryPointer(4), nullptr);

    // An RVA in the headers, before the first section, and one far past every section map nowhere.
    EXPECT_EQ(image.RvaToOffset(0x10), -1);
    EXPECT_EQ(image.RvaToPointer(0x10), nullptr);
    EXPECT_EQ(image.RvaToOffset(0xFFFFFF00), -1);
    EXPECT_EQ(image.RvaToPointer(0xFFFFFF00), nullptr);
}

TEST(PEImages, SelfRegistrationTestReadsEveryOtherName) {
    const std::pair<const wchar_t*, bool> table[] = {
        {L"walk\\lib\\gamma.dll", true},    // the only export
        {L"walk\\lib\\delta.dll", false},   // second of two
        {L"walk\\lib\\epsilon.dll", true},  // third of three
        {L"walk\\app\\app.exe", false},     // exports something else
        {L"walk\\app32\\app32.exe", false}, // exports nothing
    };
    for (const auto& [file, expected] : table)
        EXPECT_EQ(CPEImage(fixture(file)).ExportsDllRegisterServer(), expected) << narrow(file);
    EXPECT_FALSE(CPEImage(fixture(L"walk\\app\\notpe.dll")).ExportsDllRegisterServer());
}

// The linker writes import descriptors sorted by name, ignoring case; objdump shows the same order.
TEST(PEImages, ImportNamesInTableOrder) {
    EXPECT_THAT(CPEImage(fixture(L"walk\\app\\app.exe")).ImportNames(),
                ElementsAre(L"alpha.dll", L"beta.dll", L"dirlike.dll", L"kernel32.dll", L"missing_one.dll",
                            L"notpe.dll"));
    EXPECT_THAT(CPEImage(fixture(L"walk\\app\\beta.dll")).ImportNames(),
                ElementsAre(L"delta.dll", L"epsilon.dll", L"GAMMA.DLL", L"KERNEL32.DLL"));
    EXPECT_THAT(CPEImage(fixture(L"walk\\app32\\app32.exe")).ImportNames(), ElementsAre(L"only64.dll", L"shadow.dll"));
    EXPECT_TRUE(CPEImage(fixture(L"walk\\lib\\noimports.exe")).ImportNames().empty());
    EXPECT_TRUE(CPEImage(fixture(L"walk\\app\\notpe.dll")).ImportNames().empty());
}

TEST(PEImages, ScannedImageHasNoAssemblyYet) {
    CScannedPE image(fixture(L"walk\\lib\\gamma.dll"));
    EXPECT_NE(image.NtHeaders(), nullptr);
    EXPECT_EQ(image.Assembly(), nullptr);
    EXPECT_FALSE(image.AssemblyError().bError);
    IUnknown* sentinel = reinterpret_cast<IUnknown*>(0x1234);
    IUnknown* out = sentinel;
    image.GetAssembly(&out);
    EXPECT_EQ(out, sentinel) << "out stays as it was when there is no assembly";
}

TEST(PEImages, TheFileStaysReadableByOthersWhileMapped) {
    temp_dir tmp;
    std::wstring copy = tmp.copy(fixture(L"walk\\lib\\gamma.dll"), L"gamma.dll");
    CPEImage image(copy);
    ASSERT_NE(image.NtHeaders(), nullptr);
    CPEImage second(copy);
    EXPECT_NE(second.NtHeaders(), nullptr);
    EXPECT_EQ(read_file(copy).size(), image.Size());
}

} // namespace
