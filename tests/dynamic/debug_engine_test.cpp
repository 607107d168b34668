// The debug engine's helper on the library's side, before any engine runs.
#include "dynamic/debug_engine.h"
#include "test_support.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

// The engine's wire end to end (launch, events, children, the end, its exit with the last client) is
// exercised through the dynamic scanner in dep_checker_test.cpp; here the choices made before any engine runs.
TEST(Engine, ChosenByTheMachineJoinedWithOneBackslashAndNeverMappedInA64BitHost) {
    bool use64 = false;
    for (auto [folder, path] : {std::pair{L"", L"TraceHost64.exe"}, {L"C:\\a b\\", L"C:\\a b\\TraceHost64.exe"},
                                {L"C:\\a", L"C:\\a\\TraceHost64.exe"}})
        EXPECT_TRUE(ChooseEngine(folder, use64) == path && use64) << narrow(folder); // by the machine, never the target
    const wstring inSystem = system_dir() + L"\\x.dll";
    EXPECT_TRUE(CDebugEngineHelper::MapToEngine(inSystem) == inSystem && CDebugEngineHelper::MapFromEngine(inSystem) == inSystem);
    CDebugEngineHelper missing;
    EXPECT_EQ(missing.Connect(L"C:\\no\\TraceHost64.exe"), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(missing.Terminate(), E_POINTER);
}
