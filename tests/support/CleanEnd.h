#pragma once

#include "support/Chain.h"
#include "support/EventRecorder.h"

#include <pthread.h>

/// Makes each test of the program fail that leaves a report pending in its thread, or that causes an event of
/// `std::GlobalErrorHandler` outside the lifetime of its own `EventRecorder`. Forked children are not checked, and their
/// events have their default actions.

namespace support {

class CleanEndListener : public testing::EmptyTestEventListener {
    void OnTestStart(testing::TestInfo const& /*test*/) override {
        m_events.emplace();
        s_hook = std::GlobalErrorHandler::setHook(nullptr);
        std::GlobalErrorHandler::setHook(s_hook);
    }
    void OnTestEnd(testing::TestInfo const& /*test*/) override {
        EXPECT_TRUE(chainIs({})) << "The test leaves reports pending.";
        EXPECT_EQ("", m_events->getText());
        m_events.reset();
    }

    std::optional<EventRecorder> m_events;

public:
    /// Removes the hook from a child, unless the test has installed another one.
    static void removeHook() {
        auto const* const hook = std::GlobalErrorHandler::setHook(nullptr);
        std::GlobalErrorHandler::setHook(hook == s_hook ? nullptr : hook);
    }

    static inline std::GlobalErrorHandler::Hook const* s_hook = nullptr;
};

inline bool const g_checks_end = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new CleanEndListener);
    return pthread_atfork(nullptr, nullptr, CleanEndListener::removeHook) == 0;
}();

} // namespace support
