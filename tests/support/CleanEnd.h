#pragma once

#include "support/Chain.h"
#include "support/EventRecorder.h"

#include <gtest/gtest.h>

#include <optional>

/// Makes each test of the program fail that leaves a report pending in its thread, or that causes an event of
/// `std::GlobalErrorHandler` outside the lifetime of its own `EventRecorder`. Children are not checked.

namespace support {

class CleanEndListener : public testing::EmptyTestEventListener {
    void OnTestStart(testing::TestInfo const& /*test*/) override { m_events.emplace(); }
    void OnTestEnd(testing::TestInfo const& /*test*/) override {
        EXPECT_TRUE(chainIs({})) << "The test leaves reports pending.";
        EXPECT_EQ("", m_events->getText());
        m_events.reset();
    }

    std::optional<EventRecorder> m_events;
};

inline bool const g_checks_end = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new CleanEndListener);
    return true;
}();

} // namespace support
