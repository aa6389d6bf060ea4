#include "support/Chain.h"

#include <vesk/Mutex.h>
#include <vesk/SysError.h>
#include <vesk/SystemError.h>
#include <vesk/loop/LoopError.h>
#include <vesk/loop/Result.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <sstream>
#include <string>

namespace {

using namespace support;
using vesk::loop::Error;
using vesk::loop::Result;

/// Makes a chain of `levels` reports, the root cause with the number 0.
Error makeChain(int levels) {
    for (int i = 0; i < levels; ++i) {
        std::ErrorOutput("place", i, i == 0)(vesk::SysErrorId::INVALID_PATH, std::to_string(i));
    }
    return Error::take();
}

std::vector<int> linesOf(Error const& error) {
    std::vector<int> lines;
    for (std::ErrorObject const* report = &error.head(); report != nullptr; report = report->next) {
        lines.push_back(report->line);
    }
    return lines;
}

TEST(LoopResult, isTrueWithItsValueAndFalseWithItsError) {
    Result<std::unique_ptr<int>> const good(std::make_unique<int>(3));
    ASSERT_TRUE(good);
    EXPECT_EQ(3, **good);
    EXPECT_FALSE(good.code());
    Result<int> const bad(makeChain(1));
    ASSERT_FALSE(bad);
    EXPECT_EQ(1u, bad.error().count());
    EXPECT_TRUE(Result<>());
    EXPECT_FALSE(Result<>(makeChain(1)));
}

TEST(LoopError, takesTheWholeChainAndLeavesNothingPending) {
    for (int const levels : {1, 4, 5, 32}) {
        SCOPED_TRACE(levels);
        Error error = makeChain(levels);
        EXPECT_TRUE(chainIs({}));
        std::vector<int> expected;
        for (int i = levels; i-- > 0;) {
            expected.push_back(i);
        }
        EXPECT_EQ(expected, linesOf(error));
        EXPECT_EQ(0, error.root().line);
        Error const copy(error);
        EXPECT_EQ(expected, linesOf(copy));
        Error const moved(std::move(error));
        EXPECT_EQ(expected, linesOf(moved));
        Error assigned = makeChain(2);
        assigned = moved;
        EXPECT_EQ(expected, linesOf(assigned));
    }
}

TEST(LoopError, hasTheNumberOfTheRootCause) {
    std::string const text = vesk::SystemError(ENOENT).getString();
    std::ErrorOutput("root", 1, true)(vesk::SysErrorId::INVALID_PATH, text);
    std::ErrorOutput("top", 2, false)(vesk::loop::LoopErrorId::FD_REFUSED, 7);
    Error const error = Error::take();
    EXPECT_EQ(std::errc::no_such_file_or_directory, error.code());
    EXPECT_TRUE(error == std::errc::no_such_file_or_directory);
    EXPECT_TRUE(error != std::errc::permission_denied);
    std::error_code const code = Result<int>(error);
    EXPECT_EQ(ENOENT, code.value());
}

TEST(LoopError, withoutANumberHasTheNearestOne) {
    std::ErrorOutput("root", 1, true)(std::CommonErrorId::OUT_OF_MEMORY);
    EXPECT_TRUE(Error::take() == std::errc::not_enough_memory);
    std::ErrorOutput("root", 1, true)(vesk::SysErrorId::PERMISSION_DENIED, "text");
    EXPECT_TRUE(Error::take() == std::errc::operation_not_permitted);
    std::ErrorOutput("root", 1, true)(vesk::loop::LoopErrorId::FD_WATCHED, 3);
    EXPECT_TRUE(Error::take() == std::errc::file_exists);
    std::ErrorOutput("root", 1, true)(vesk::Mutex::ErrorId::LOCK_FAILED, "text");
    EXPECT_TRUE(Error::take() == std::errc::io_error);
}

TEST(LoopError, printsTheChainFromTheHeadToTheRootCause) {
    std::ErrorOutput("root", 1, true)(vesk::SysErrorId::INVALID_PATH, "cause");
    std::ErrorOutput("top", 2, false)(vesk::loop::LoopErrorId::FD_REFUSED, 7);
    std::ostringstream stream;
    stream << Error::take();
    EXPECT_EQ(
        "top:2: Descriptor 7 cannot be watched\n  caused by root:1: Invalid path specified: cause",
        stream.str());
}

} // namespace
