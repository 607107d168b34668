// The activation scope of an image with a manifest of its own: the context is active while the scope
// lives, and an image without one costs nothing.
#include "static/activation_scope.h"
#include "static/pe_images.h"
#include "test_support.h"

#include <gtest/gtest.h>

TEST(ActivationScope, ActiveOnlyForAnImageWithItsOwnManifest) {
    const std::pair<const wchar_t*, bool> table[] = {
        {L"walk\\manifest\\withmanifest.dll", true},  // resource 2, as a DLL's scope asks for
        {L"walk\\manifest\\withmanifest.exe", true},  // resource 1, as an executable's scope asks for
        {L"walk\\manifest\\exemanifest.dll", false}, // an executable's manifest in a DLL
        {L"walk\\lib\\gamma.dll", false},
    };
    for (const auto& [rel, expected] : table) {
        const std::wstring path = qv::test::fixture(rel);
        CPEImage image(path);
        HANDLE before = nullptr, inside = nullptr;
        GetCurrentActCtx(&before);
        {
            ActivationScope scope(path, ActivationScope::HasManifest(image, path));
            EXPECT_EQ(scope.Active(), expected) << qv::test::narrow(rel);
            GetCurrentActCtx(&inside);
            EXPECT_EQ(inside != before, expected) << qv::test::narrow(rel);
        }
        HANDLE after = nullptr;
        GetCurrentActCtx(&after);
        EXPECT_EQ(after, before);
        for (HANDLE h : {before, inside, after})
            if (h)
                ReleaseActCtx(h);
    }
}
