// main() of the test programs that use the server as a client: after the cases, no object of the
// server may be left alive, and DllCanUnloadNow must say S_OK.
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

class unload_check : public ::testing::Environment {
public:
    void TearDown() override {
        qv::test::com_apartment apartment;
        EXPECT_EQ(qv::test::server().CanUnloadNow(), S_OK) << "an object of the server is still alive";
    }
};

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new unload_check);
    return RUN_ALL_TESTS();
}
