#include "support/Descriptors.h"

#include <gtest/gtest.h>

#include <tarncommon/error/ErrorStorage.h>

namespace {

/// Checks of every test: it starts without a pending error and leaks no descriptor.
class Rules : public testing::EmptyTestEventListener {
    void OnTestStart(testing::TestInfo const&) override {
        std::ErrorStorage::ack();
        m_descriptors = support::countDescriptors();
    }
    void OnTestEnd(testing::TestInfo const&) override {
        EXPECT_EQ(m_descriptors, support::countDescriptors()) << "the test lost or closed a descriptor";
    }

    int m_descriptors = 0;
};

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new Rules);
    return RUN_ALL_TESTS();
}
