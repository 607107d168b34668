// Activation scopes of scanned images: which images get a context of their own manifest, that it is
// active exactly while the scope lives, and that the resource check agrees with the system's own answer.
#include "static/activation_scope.h"
#include "static/pe_images.h"
#include "test_support.h"

#include <gtest/gtest.h>

using namespace qv::test;

namespace {

HANDLE current_context() {
    HANDLE h = nullptr;
    GetCurrentActCtx(&h);
    return h;
}

// What the system itself says: can a context be made from the file's manifest resource?
bool system_makes_context(const std::wstring& path) {
    ACTCTXW context{};
    context.cbSize = sizeof context;
    context.dwFlags = ACTCTX_FLAG_RESOURCE_NAME_VALID;
    context.lpSource = path.c_str();
    context.lpResourceName = MAKEINTRESOURCEW(ActivationScope::ManifestResourceFor(path));
    HANDLE h = CreateActCtxW(&context);
    if (h == INVALID_HANDLE_VALUE || !h)
        return false;
    ReleaseActCtx(h);
    return true;
}

TEST(ActivationScope, ResourceNameFollowsTheExtension) {
    const std::pair<const wchar_t*, ULONG_PTR> table[] = {
        {L"C:\\a\\b.exe", 1}, {L"C:\\a\\b.EXE", 1}, {L"C:\\a\\b.dll", 2}, {L"C:\\a\\b.Dll", 2},
        {L"C:\\a\\b.ocx", 0}, {L"C:\\a.dll\\b", 0}, {L"b", 0},          {L"C:\\a\\b.exe.txt", 0}};
    for (const auto& [path, id] : table)
        EXPECT_EQ(ActivationScope::ManifestResourceFor(path), id) << narrow(path);
}

TEST(ActivationScope, ManifestCheckAgreesWithTheSystem) {
    struct row {
        std::wstring path;
        bool manifest;
    };
    const row table[] = {
        {fixture(L"walk\\manifest\\withmanifest.dll"), true},
        {fixture(L"walk\\manifest\\withmanifest.exe"), true},
        {fixture(L"walk\\manifest\\exemanifest.dll"), false}, // resource 1 in a DLL: not its own
        {fixture(L"walk\\lib\\gamma.dll"), false},
        {fixture(L"walk\\app32\\app32.exe"), false},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(narrow(r.path));
        CPEImage image(r.path);
        ASSERT_NE(image.NtHeaders(), nullptr);
        EXPECT_EQ(ActivationScope::HasManifest(image, r.path), r.manifest);
        EXPECT_EQ(system_makes_context(r.path), r.manifest);
    }
    EXPECT_FALSE(ActivationScope::HasManifest(CPEImage(fixture(L"walk\\app\\notpe.dll")), L"notpe.dll"));
}

TEST(ActivationScope, ManifestCheckAgreesWithTheSystemOnSystemFiles) {
    // Every image of the system folder: the check must give the system's own answer.
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((system_dir() + L"\\*").c_str(), &data);
    ASSERT_NE(find, INVALID_HANDLE_VALUE);
    int checked = 0, withManifest = 0;
    do {
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            continue;
        std::wstring path = system_dir() + L"\\" + data.cFileName;
        CPEImage image(path);
        if (!image.NtHeaders())
            continue;
        bool ours = ActivationScope::HasManifest(image, path);
        bool system = system_makes_context(path);
        // A file of another extension asks for resource 0; the check then answers for any manifest and
        // may say yes where the system makes none (the scope then tries, as it always did). It may
        // never say no where the system makes a context.
        if (ActivationScope::ManifestResourceFor(path) != 0)
            EXPECT_EQ(ours, system) << narrow(path);
        else if (!ours)
            EXPECT_FALSE(system) << narrow(path);
        withManifest += ours;
        ++checked;
    } while (FindNextFileW(find, &data));
    FindClose(find);
    EXPECT_GT(checked, 100);
    EXPECT_GT(withManifest, 0) << "some system images carry a manifest of their own";
}

TEST(ActivationScope, ContextIsActiveWhileTheScopeLives) {
    const std::wstring path = fixture(L"walk\\manifest\\withmanifest.dll");
    HANDLE before = current_context();
    {
        ActivationScope scope(path);
        ASSERT_TRUE(scope.Active());
        HANDLE inside = current_context();
        EXPECT_NE(inside, before);
        if (inside)
            ReleaseActCtx(inside);
        {
            ActivationScope nested(fixture(L"walk\\manifest\\withmanifest.exe"));
            EXPECT_TRUE(nested.Active());
        }
        HANDLE back = current_context();
        EXPECT_EQ(back, inside) << "scopes nest";
        if (back)
            ReleaseActCtx(back);
    }
    HANDLE after = current_context();
    EXPECT_EQ(after, before);
    if (after)
        ReleaseActCtx(after);
    if (before)
        ReleaseActCtx(before);

    ActivationScope skipped(path, false);
    EXPECT_FALSE(skipped.Active());
    ActivationScope none(fixture(L"walk\\lib\\gamma.dll"));
    EXPECT_FALSE(none.Active());
}

} // namespace
