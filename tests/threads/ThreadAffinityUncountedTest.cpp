#include "support/Chain.h"
#include "support/Inject.h"

#include <vesk/SysError.h>
#include <vesk/Thread.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include <vector>

// The library asks while it is loaded, so the whole program has a system that cannot count its processors.
support::Injected inject_sysconf("sysconf");
extern "C" VESK_UNWATCHED long sysconf(int name) {
    if (name == _SC_NPROCESSORS_ONLN) {
        errno = EINVAL;
        return -1;
    }
    return reinterpret_cast<long (*)(int)>(inject_sysconf.getReal())(name);
}

VESK_INJECT_RESULT(
    pthread_getaffinity_np, (pthread_t thread, size_t size, cpu_set_t* set), (thread, size, set))

namespace {

using support::chainIs;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Thread;

TEST(ThreadAffinityUncounted, cannotBeRead) {
    ASSERT_EQ(0u, vesk::Vesk::s_sys_info.processor_count);
    Thread thread([](void*) {}, nullptr);
    std::vector<bool> processors(3, true);
    EXPECT_TRUE(thread.getCPUAffinity(processors));
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::UNSUPPORTED_VALUE,
          rowText(std::CommonErrorId::UNSUPPORTED_VALUE, "cpu count is 0")}}));
    EXPECT_EQ(std::vector<bool>(3, true), processors);
}

TEST(ThreadAffinityUncounted, isAskedForFirst) {
    Thread thread([](void*) {}, nullptr);
    std::vector<bool> processors;
    Fault const fault(inject_pthread_getaffinity_np, ESRCH);
    EXPECT_TRUE(thread.getCPUAffinity(processors));
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(ESRCH))}}));
}

TEST(ThreadAffinityUncounted, emptyVectorNamesNoProcessorAndIsRefused) {
    Thread thread([](void*) {}, nullptr);
    EXPECT_TRUE(thread.setCPUAffinity({}));
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EINVAL))}}));
}

} // namespace
