#include "support/AllocationCounter.h"
#include "support/Child.h"

#include <tarncommon/tarnbase/abort.h>

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

using support::ChildEnd;
using support::runInChild;

TEST(Abort, writesOneLineAndEndsTheProcessWithSigabrt) {
    ChildEnd const end =
        runInChild([] { tarnbase::abort("some/File", 12, "function", "error %d (%s)", 5, "text"); });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_EQ("some/File:12: function: fatal: error 5 (text)\n", end.errors);
}

TEST(Abort, knowsTheConversions) {
    ChildEnd const end = runInChild([] {
        tarnbase::abort(
            "f", 1, "g", "%s|%c|%d|%i|%u|%x|%ld|%lu|%lld|%llu|%zu|%hd|%p|%%", "s", 'c', INT_MIN, -1,
            4000000000u, 255u, LONG_MAX, 7ul, LLONG_MIN, ULLONG_MAX, static_cast<size_t>(9),
            static_cast<short>(-5), reinterpret_cast<void*>(0xabc));
    });
    EXPECT_EQ(
        "f:1: g: fatal: s|c|-2147483648|-1|4000000000|ff|" + std::to_string(LONG_MAX) +
            "|7|-9223372036854775808|18446744073709551615|9|-5|0xabc|%\n",
        end.errors);
}

TEST(Abort, cutsALongLine) {
    ChildEnd const end = runInChild([] {
        std::string const name(2000, 'x');
        tarnbase::abort("f", 1, "g", "%s", name.c_str());
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_EQ(1023u, end.errors.size());
    EXPECT_EQ("...\n", end.errors.substr(end.errors.size() - 4));
}

TEST(Abort, endsTheProcessFromASignalHandlerThatInterruptedTheAllocator) {
    if (!support::COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizers bring their own allocation functions";
    }
    ChildEnd const end = runInChild([] {
        static thread_local int s_before;
        signal(SIGUSR1, [](int) {
            s_before = support::t_allocations;
            // What this asks for must come without the heap, or the count below tells.
            signal(SIGABRT, [](int) { _exit(support::t_allocations == s_before ? 3 : 4); });
            tarnbase::abort("f", 1, "g", "%s", "in a handler");
        });
        raise(SIGUSR1);
    });
    EXPECT_EQ(SIGABRT, end.signal) << "a handler of SIGABRT does not run";
    EXPECT_EQ("f:1: g: fatal: in a handler\n", end.errors);
}

TEST(Abort, endsTheProcessWithSigabrtBlocked) {
    ChildEnd const end = runInChild([] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        tarnbase::abort("f", 1, "g", "text");
    });
    EXPECT_EQ(SIGABRT, end.signal);
}

} // namespace
