#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <tarncommon/threadsafe/ConditionImpl.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <pthread.h>
#include <string>
#include <thread>

VESK_INJECT_RESULT(pthread_condattr_init, (pthread_condattr_t * a), (a))
VESK_INJECT_RESULT(pthread_condattr_setclock, (pthread_condattr_t * a, clockid_t clock), (a, clock))
VESK_INJECT_RESULT(pthread_cond_init, (pthread_cond_t * c, pthread_condattr_t const* a), (c, a))
VESK_INJECT_RESULT(pthread_cond_destroy, (pthread_cond_t * c), (c))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * c), (c))

namespace {

using support::EventRecorder;
using support::Fault;
using support::Injected;
using tarnbase::Duration;
using tarnbase::TimePoint;
using threadsafe::ConditionBase;
using threadsafe::ConditionImpl;
using threadsafe::MutexImpl;

class ConditionImplTest : public testing::Test {
protected:
    MutexImpl m_mutex{false};
    ConditionImpl m_condition{m_mutex};
    bool m_ready = false;
};

TEST_F(ConditionImplTest, signalWakesAWaiter) {
    std::thread waiter([this] {
        ASSERT_EQ(0, m_mutex.lock());
        while (!m_ready) {
            EXPECT_EQ(0, m_condition.wait());
        }
        EXPECT_EQ(0, m_mutex.unlock());
    });
    ASSERT_EQ(0, m_mutex.lock());
    m_ready = true;
    EXPECT_EQ(0, m_condition.signal_one());
    EXPECT_EQ(0, m_mutex.unlock());
    waiter.join();
}

TEST_F(ConditionImplTest, timedWaitGivesTimeoutAtTheDeadlineAndNotBefore) {
    ASSERT_EQ(0, m_mutex.lock());
    TimePoint const deadline = TimePoint::now() + Duration(20);
    int result = 0;
    while ((result = m_condition.wait_timeout(deadline)) == 0) {}
    EXPECT_EQ(int{ConditionBase::TIMEOUT}, result);
    EXPECT_GE(TimePoint::now(), deadline);
    EXPECT_EQ(int{ConditionBase::TIMEOUT}, m_condition.wait_timeout(TimePoint(-5)));
    EXPECT_EQ(0, m_mutex.unlock());
}

TEST_F(ConditionImplTest, waitWithoutADeadlineIsAPlainWait) {
    Fault const timed(inject_pthread_cond_timedwait, 0);
    std::thread waiter([this] {
        ASSERT_EQ(0, m_mutex.lock());
        Fault const plain(inject_pthread_cond_wait, 0);
        while (!m_ready) {
            EXPECT_EQ(0, m_condition.wait_timeout(TimePoint::MAX));
            EXPECT_GE(plain.getCalls(), 1);
        }
        EXPECT_EQ(0, m_mutex.unlock());
    });
    ASSERT_EQ(0, m_mutex.lock());
    m_ready = true;
    EXPECT_EQ(0, m_condition.signal_one());
    EXPECT_EQ(0, m_mutex.unlock());
    waiter.join();
}

TEST_F(ConditionImplTest, waitWithoutTheMutexIsAnInconsistency) {
    EXPECT_EQ(int{ConditionBase::ERROR_INCONSISTENCY}, m_condition.wait());
    EXPECT_EQ(EPERM, errno);
}

struct Row {
    int error;
    int result;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class ConditionImplRows : public ConditionImplTest, public testing::WithParamInterface<Row> {};

TEST_P(ConditionImplRows, everyOperationGivesItsCode) {
    ASSERT_EQ(0, m_mutex.lock());
    Fault const wait(inject_pthread_cond_wait, GetParam().error);
    Fault const timed(inject_pthread_cond_timedwait, GetParam().error);
    Fault const signal(inject_pthread_cond_signal, GetParam().error);
    EXPECT_EQ(GetParam().result, m_condition.wait());
    EXPECT_EQ(GetParam().result, m_condition.wait_timeout(TimePoint::now() + Duration(60000)));
    EXPECT_EQ(GetParam().result, m_condition.signal_one());
    ASSERT_EQ(0, m_mutex.unlock());
}

INSTANTIATE_TEST_SUITE_P(
    All, ConditionImplRows,
    testing::Values(
        Row{ETIMEDOUT, 1}, Row{EINVAL, -1}, Row{EPERM, -1}, Row{EAGAIN, EAGAIN}, Row{ENOMEM, ENOMEM}));

class ConditionImplCreation : public testing::TestWithParam<Injected*> {};

TEST_P(ConditionImplCreation, failureIsFatal) {
    EventRecorder const recorder;
    MutexImpl mutex(false);
    alignas(ConditionImpl) unsigned char memory[sizeof(ConditionImpl)]; // Not destroyed: nothing was made.
    {
        Fault const fault(*GetParam(), ENOMEM);
        new (memory) ConditionImpl(mutex);
    }
    EXPECT_EQ(
        "ABORT tarncommon/src/threadsafe/ConditionImpl ConditionImpl: error creating condition (errno = " +
            std::to_string(ENOMEM) + ")",
        recorder.getText());
}

INSTANTIATE_TEST_SUITE_P(
    All, ConditionImplCreation,
    testing::Values(
        &inject_pthread_condattr_init, &inject_pthread_condattr_setclock, &inject_pthread_cond_init),
    [](auto const& row) { return "step" + std::to_string(row.index); });

TEST(ConditionImpl, failedDestructionIsAsserted) {
    EventRecorder const recorder;
    MutexImpl mutex(false);
    {
        ConditionImpl condition(mutex);
        // Counted from 1: the destructor's own call is the first.
        Fault const fault(inject_pthread_cond_destroy, EBUSY);
        condition.~ConditionImpl();
        new (&condition) ConditionImpl(mutex);
    }
    EXPECT_EQ(
        "ASSERT tarncommon/src/threadsafe/ConditionImpl ~ConditionImpl: error == 0: destroying condition "
        "failed "
        "(errno = " +
            std::to_string(EBUSY) + ")",
        recorder.getText());
}

} // namespace
