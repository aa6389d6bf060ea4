#include "support/FailOnce.h"
#include "threads/ThreadSupport.h"

#include <vesk/Vesk.h>

VESK_INJECT_RESULT(
    pthread_setaffinity_np, (pthread_t thread, size_t size, cpu_set_t const* set), (thread, size, set))
VESK_INJECT_RESULT(
    pthread_getaffinity_np, (pthread_t thread, size_t size, cpu_set_t* set), (thread, size, set))

namespace {

using namespace support;

using Processors = std::vector<bool>;

class ThreadAffinity : public ThreadsGone {
protected:
    void TearDown() override {
        m_thread.end();
        ThreadsGone::TearDown();
    }

    /// Returns what the system shows.
    cpu_set_t readSet() const {
        cpu_set_t set;
        CPU_ZERO(&set);
        EXPECT_EQ(0, pthread_getaffinity_np(m_thread.getThreadId().getValue(), sizeof set, &set));
        return set;
    }
    Processors read() const {
        cpu_set_t const set = readSet();
        Processors processors(m_count);
        for (size_t i = 0; i < m_count; ++i) {
            processors[i] = CPU_ISSET(i, &set);
        }
        return processors;
    }
    void expectOnly(size_t processor) const {
        cpu_set_t const set = readSet();
        EXPECT_EQ(1, CPU_COUNT(&set));
        EXPECT_TRUE(CPU_ISSET(processor, &set));
    }

    Processors makeOne() const {
        Processors one(m_usable + 1);
        one.back() = true;
        return one;
    }
    /// Returns the number of a processor on which this process may run.
    size_t getUsable() const {
        Processors const processors = read();
        size_t usable = 0;
        while (usable + 1 < m_count && !processors[usable]) {
            ++usable;
        }
        return usable;
    }

    size_t m_count = vesk::Vesk::s_sys_info.processor_count;
    HeldThread m_thread;
    size_t const m_usable = getUsable();
    Processors const m_one = makeOne();
};

TEST_F(ThreadAffinity, isSetAndReadAndThatOfOthersStaysAsItIs) {
    cpu_set_t before;
    ASSERT_EQ(0, pthread_getaffinity_np(pthread_self(), sizeof before, &before));
    Processors one = m_one;
    EXPECT_FALSE(m_thread.setCPUAffinity(one)) << "a vector up to the processor is enough";
    expectOnly(m_usable);
    one.resize(m_count);
    EXPECT_FALSE(m_thread.setCPUAffinity(one));
    EXPECT_EQ(one, read());
    Processors got;
    EXPECT_FALSE(m_thread.getCPUAffinity(got));
    EXPECT_EQ(one, got);
    cpu_set_t after;
    ASSERT_EQ(0, pthread_getaffinity_np(pthread_self(), sizeof after, &after));
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadAffinity, emptyVectorAllowsAllProcessors) {
    Processors const before = read();
    EXPECT_FALSE(m_thread.setCPUAffinity(m_one));
    EXPECT_FALSE(m_thread.setCPUAffinity({}));
    EXPECT_EQ(before, read());
    Processors got;
    EXPECT_FALSE(m_thread.getCPUAffinity(got));
    EXPECT_EQ(before, got);
}

TEST_F(ThreadAffinity, vectorOfOnlyFalseEntriesChangesNothing) {
    Processors const before = read();
    Fault const calls(inject_pthread_setaffinity_np, EINVAL);
    EXPECT_FALSE(m_thread.setCPUAffinity(Processors(1)));
    EXPECT_FALSE(m_thread.setCPUAffinity(Processors(m_count)));
    EXPECT_FALSE(m_thread.setCPUAffinity(Processors(5000)));
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ(before, read());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadAffinity, entriesFrom1024OnAreIgnored) {
    Processors processors(2000);
    processors[1024] = true;
    processors[1999] = true;
    Processors const before = read();
    {
        Fault const calls(inject_pthread_setaffinity_np, EINVAL);
        EXPECT_FALSE(m_thread.setCPUAffinity(processors)) << "nothing is left";
        EXPECT_EQ(0, calls.getCalls());
    }
    EXPECT_EQ(before, read());
    processors[m_usable] = true;
    EXPECT_FALSE(m_thread.setCPUAffinity(processors));
    expectOnly(m_usable);
}

TEST_F(ThreadAffinity, entriesBeyondTheMachineAreIgnoredByTheSystem) {
    Processors processors(1024, true);
    EXPECT_FALSE(m_thread.setCPUAffinity(processors));
    EXPECT_TRUE(read()[m_usable]);
    Processors none_of_them(1024);
    none_of_them[1023] = true;
    if (m_count < 1024) {
        EXPECT_TRUE(m_thread.setCPUAffinity(none_of_them));
        EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EINVAL));
    }
}

TEST_F(ThreadAffinity, readingItResizesTheVector) {
    for (size_t const size : {size_t{0}, size_t{1}, m_count, m_count + 1, size_t{3000}}) {
        Processors processors(size, true);
        EXPECT_FALSE(m_thread.getCPUAffinity(processors));
        EXPECT_EQ(m_count, processors.size());
        EXPECT_EQ(read(), processors);
    }
}

TEST_F(ThreadAffinity, failuresAreUnclassifiedAndChangeNothing) {
    Processors const before = read();
    for (int const error : {EINVAL, ESRCH, EPERM, EFAULT}) {
        SCOPED_TRACE(error);
        leaveOlderReport();
        EXPECT_TRUE(
            failOnce(inject_pthread_setaffinity_np, error, [this] { return m_thread.setCPUAffinity({}); }));
        EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
        EXPECT_EQ(before, read());
        leaveOlderReport();
        Processors processors(7, true);
        EXPECT_TRUE(failOnce(
            inject_pthread_getaffinity_np, error, [&] { return m_thread.getCPUAffinity(processors); }));
        EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
        EXPECT_EQ(Processors(7, true), processors) << "left as it was";
    }
}

} // namespace
