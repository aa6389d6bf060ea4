#include "threads/ThreadSupport.h"

#include <vesk/Vesk.h>

// The library counts while it is loaded, so the count fails in the whole program.
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

using namespace support;

class ThreadAffinityUncounted : public testing::Test {
protected:
    TestThread m_thread{[] {}};
};

TEST_F(ThreadAffinityUncounted, cannotBeRead) {
    ASSERT_EQ(0u, vesk::Vesk::s_sys_info.processor_count);
    std::vector<bool> processors(3, true);
    EXPECT_TRUE(m_thread.getCPUAffinity(processors));
    auto const id = CommonErrorId::UNSUPPORTED_VALUE;
    EXPECT_TRUE(chainIs({{id, rowText(id, "cpu count is 0")}}));
    EXPECT_EQ(std::vector<bool>(3, true), processors);
}

TEST_F(ThreadAffinityUncounted, isReadBeforeTheCountIsChecked) {
    std::vector<bool> processors;
    Fault const fault(inject_pthread_getaffinity_np, ESRCH);
    EXPECT_TRUE(m_thread.getCPUAffinity(processors));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, ESRCH));
}

TEST_F(ThreadAffinityUncounted, emptyVectorNamesNoProcessorAndIsRefused) {
    EXPECT_TRUE(m_thread.setCPUAffinity({}));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EINVAL));
}

} // namespace
