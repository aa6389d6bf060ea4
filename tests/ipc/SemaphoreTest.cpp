#include "IpcSupport.h"
#include "support/Processes.h"

namespace {

using namespace support;
using namespace vesk;

class SemaphoreTest : public testing::Test {
protected:
    void SetUp() override { create(0); }

    void create(unsigned int value) {
        ASSERT_FALSE(m_semaphore.create(m_name, value, Creatable::REPLACE));
        EXPECT_EQ(value, s_semaphore_value);
    }
    int getValue() const { return std::stoi(m_name.getState()); }

    IpcName m_name{SEMAPHORE};
    SemaphoreCreator m_semaphore;
    SemaphoreClient m_closed;
};

// ---- release ----

TEST_F(SemaphoreTest, releaseOfAClosedObjectIsRefused) {
    Calls const posts(inject_sem_post, 0);
    EXPECT_TRUE(m_closed.release());
    EXPECT_TRUE(
        chainIs({reportOf(CommonErrorId::CONTRACT_BROKEN, "__FUNCTION__ was called on invalid semaphore")}));
}

TEST_F(SemaphoreTest, releaseIncreasesTheValueAndFailuresAreReported) {
    EXPECT_EQ(1, m_semaphore.tryTake());
    EXPECT_TRUE(chainIs({}));
    for (int const value : {1, 2}) {
        EXPECT_FALSE(m_semaphore.release());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(value, getValue());
    }
    for (int const error : {EINVAL, EINTR, EAGAIN}) {
        EXPECT_TRUE(failOnce(inject_sem_post, error, [this] { return m_semaphore.release(); }));
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, error));
    }
    create(SEM_VALUE_MAX);
    EXPECT_TRUE(m_semaphore.release());
    EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, EOVERFLOW));
    EXPECT_EQ(SEM_VALUE_MAX, getValue());
}

// ---- creator and client ----

TEST_F(SemaphoreTest, valueAboveTheHighestIsRefused) {
    constexpr unsigned int HIGHEST = SEM_VALUE_MAX;
    EXPECT_FALSE(m_semaphore.deleteName());
    EXPECT_TRUE(m_semaphore.create(m_name, HIGHEST + 1, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs(
        reportsOf({EINVAL, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH}, m_name.getSystemName())));
    EXPECT_FALSE(m_name.exists());
    EXPECT_FALSE(m_semaphore.create(m_name, HIGHEST, Creatable::CREATE_NEW));
    EXPECT_EQ(SEM_VALUE_MAX, getValue());
}

TEST_F(SemaphoreTest, clientAttachesToTheSemaphoreOfItsCreatorAndKeepsItWhenItIsReplaced) {
    create(2);
    SemaphoreClient client;
    EXPECT_FALSE(client.attach(m_name));
    EXPECT_EQ(m_name.getSystemName(), s_semaphore_open.name);
    EXPECT_EQ(0, s_semaphore_open.flags);
    EXPECT_FALSE(client.take());
    EXPECT_EQ(1, getValue());
    create(2);
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(client.take());
    EXPECT_EQ(2, getValue());
    EXPECT_FALSE(m_semaphore.deleteName());
    EXPECT_FALSE(m_semaphore.take()) << "a semaphore without a name stays usable";
}

// ---- concurrency ----

TEST_F(SemaphoreTest, processesNeverTakeMoreThanTheValue) {
    constexpr int SLOTS = 2;
    create(SLOTS);
    SharedObject<std::atomic<int>> holders(0);
    {
        auto const work = [&] {
            SemaphoreClient client;
            EXPECT_FALSE(client.attach(m_name));
            for (size_t round = 0; round < 200; ++round) {
                int const result = round % 3 == 0 ? -client.take()
                    : round % 3 == 1              ? client.tryTake()
                                                  : client.tryTakeTimeout(60000);
                EXPECT_NE(-1, result);
                if (result != 0) {
                    continue;
                }
                EXPECT_LE(++*holders, SLOTS);
                sched_yield();
                --*holders;
                EXPECT_FALSE(client.release());
            }
        };
        Process processes[] = {Process(work), Process(work), Process(work)};
        for (Process& process : processes) {
            EXPECT_EQ(0, process.join());
        }
    }
    EXPECT_EQ(SLOTS, getValue());
}

} // namespace
