#pragma once

#include "support/CleanEnd.h"
#include "support/Eventually.h"
#include "support/Threads.h"

#include <vesk/loop/Loop.h>
#include <vesk/loop/LoopError.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

/// What the tests of loops have in common.
namespace support {

using namespace std::chrono_literals;
using vesk::loop::Clock;
using vesk::loop::Exit;
using vesk::loop::Loop;
using vesk::loop::Priority;
using vesk::loop::Result;
using vesk::loop::Timer;
using vesk::loop::Trigger;
using vesk::loop::Watch;

/// Returns the value of a result that must be a success.
template <typename T>
T valueOf(Result<T> result) {
    EXPECT_TRUE(result) << result.error();
    return std::move(*result);
}

/// Both ends of a pipe that does not block.
class TestPipe {
public:
    TestPipe() { EXPECT_EQ(0, pipe2(m_ends.data(), O_NONBLOCK | O_CLOEXEC)); }
    ~TestPipe() {
        closeWriter();
        close(m_ends[0]);
    }
    TestPipe(TestPipe const&) = delete;
    TestPipe& operator=(TestPipe const&) = delete;

    int getReader() const { return m_ends[0]; }
    int getWriter() const { return m_ends[1]; }
    void write(std::string const& text) const {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(m_ends[1], text.data(), text.size()));
    }
    /// Reads what is there; at most `limit` bytes.
    std::string read(size_t limit = 100) const {
        std::string text(limit, '\0');
        ssize_t const count = ::read(m_ends[0], text.data(), limit);
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }
    void closeWriter() {
        if (m_ends[1] >= 0) {
            close(std::exchange(m_ends[1], -1));
        }
    }

private:
    std::array<int, 2> m_ends{};
};

/// Starts a child that ends with a status when `gate` is readable, at once without one.
inline pid_t startChild(int status, int gate = -1) {
    pid_t const child = fork();
    if (child == 0) {
        char byte = 0;
        while (gate >= 0 && read(gate, &byte, 1) < 0 && (errno == EAGAIN || errno == EINTR)) {
            usleep(1000);
        }
        _exit(status);
    }
    EXPECT_LT(0, child);
    return child;
}

/// Runs rounds of a loop until a condition holds.
template <typename Condition>
testing::AssertionResult runUntil(Loop& loop, Condition condition) {
    for (int round = 0; round < 10000; ++round) {
        if (condition()) {
            return testing::AssertionSuccess();
        }
        if (auto const outcome = loop.runOnce(10ms); !outcome) {
            return testing::AssertionFailure() << outcome.error();
        }
    }
    return testing::AssertionFailure() << "the condition does not hold";
}

} // namespace support
