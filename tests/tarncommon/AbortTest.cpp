#include "support/AllocationCounter.h"
#include "support/Testing.h"

#include <tarncommon/tarnbase/abort.h>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

namespace {

int s_allocations_before = 0;
support::Fault const* s_locks = nullptr;

} // namespace

/// The last call before the end, and the only place to check the calls before it.
extern "C" int pthread_sigmask(int how, sigset_t const* set, sigset_t* old) {
    if (s_locks != nullptr && support::t_allocations != s_allocations_before) {
        _exit(4);
    }
    if (s_locks != nullptr && s_locks->getCalls() != 0) {
        _exit(5);
    }
    return sigprocmask(how, set, old);
}

namespace {

using namespace support;

TEST(Abort, writesOneLineWithAllConversionsAndEndsTheProcessWithSigabrt) {
    ChildEnd const end = runInChild([] {
        tarnbase::abort(
            "some/File", 12, "function", "%s|%c|%d|%i|%u|%x|%ld|%lu|%lld|%llu|%zu|%hd|%p|%%", "s", 'c',
            INT_MIN, -1, 4000000000u, 255u, LONG_MAX, 7ul, LLONG_MIN, ULLONG_MAX, static_cast<size_t>(9),
            static_cast<short>(-5), reinterpret_cast<void*>(0xabc));
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_EQ(
        "some/File:12: function: fatal: s|c|-2147483648|-1|4000000000|ff|" + std::to_string(LONG_MAX) +
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

TEST(Abort, dropsAConversionWithoutALetter) {
    for (std::string const format : {"%s%", "%s%l"}) {
        ChildEnd const end = runInChild([&] { tarnbase::abort("f", 1, "g", format.c_str(), "text"); });
        EXPECT_EQ("f:1: g: fatal: text\n", end.errors);
    }
}

TEST(Abort, worksInASignalHandlerWithoutTheHeapAndWithoutALock) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizers bring their own allocation functions";
    }
    ChildEnd const end = runInChild([] {
        signal(SIGUSR1, [](int) {
            Fault const locks(inject_pthread_mutex_lock, 0);
            s_locks = &locks;
            s_allocations_before = t_allocations;
            tarnbase::abort("f", 1, "g", "%s", "in a handler");
        });
        raise(SIGUSR1);
    });
    EXPECT_EQ(SIGABRT, end.signal) << "exit code " << end.exit_code << ": 4 is an allocation, 5 a lock";
    EXPECT_EQ("f:1: g: fatal: in a handler\n", end.errors);
}

TEST(Abort, endsTheProcessWithSigabrtHandledOrBlocked) {
    for (bool const blocked : {false, true}) {
        ChildEnd const end = runInChild([blocked] {
            sigset_t all;
            sigfillset(&all);
            blocked ? (void)sigprocmask(SIG_SETMASK, &all, nullptr)
                    : (void)signal(SIGABRT, [](int) { _exit(3); });
            tarnbase::abort("f", 1, "g", "text");
        });
        EXPECT_EQ(SIGABRT, end.signal);
    }
}

} // namespace
