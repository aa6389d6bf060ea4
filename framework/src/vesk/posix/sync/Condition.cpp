#include <vesk/Condition.h>

#include "vesk/common/Report.h"

#include <vesk/ShmCondition.h>
#include <vesk/SysError.h>
#include <vesk/common/AbortingLock.h>

#include <iterator>
#include <new>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Condition";

constexpr std::ErrorID ROWS[] = {
    {0, "Creating condition variable failed", 0},
    {1, "Waiting on condition variable failed", 0},
    {2, "Signaling condition variable failed", 0},
};

using InternalLock = AbortingLock<threadsafe::MutexImpl>;

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Condition::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT std::ErrorType const& ShmCondition::Error = Condition::Error;

// `ConditionImpl` needs its mutex at construction. Only the first wait supplies it, so it is constructed
// there.
Condition::Condition() : m_lock(false) {
    TARN_NAME_LOCK(m_lock, CONDITION_BINDING);
}

Condition::~Condition() {
    InternalLock const lock(m_lock, SOURCE, "~Condition");
    if (m_mutex.load(std::memory_order_relaxed) != nullptr) {
        getImpl().~ConditionImpl();
    }
}

threadsafe::ConditionImpl& Condition::getImpl() noexcept {
    return *std::launder(reinterpret_cast<threadsafe::ConditionImpl*>(m_storage));
}

/// Binds the condition to the mutex of its first wait. Returns true if it is bound to another mutex.
bool Condition::bind(Mutex& mutex, char const* function) {
    // The binding never changes, so only the first wait needs the lock. Acquire: pairs with the release in
    // `bindFirst`, which follows the construction of the implementation.
    Mutex const* bound = m_mutex.load(std::memory_order_acquire);
    if (bound == nullptr) {
        bound = bindFirst(mutex, function);
    }
    if (bound != &mutex) {
        report(SOURCE, Chain::NEW, SysErrorId::SPOILED_INTEGRITY, "Using Condition with different Mutexes");
        return true;
    }
    return false;
}

/// Returns the mutex to which the condition is bound, `mutex` if there has been no wait yet.
Mutex const* Condition::bindFirst(Mutex& mutex, char const* function) {
    InternalLock const lock(m_lock, SOURCE, function);
    if (m_mutex.load(std::memory_order_relaxed) == nullptr) {
        new (m_storage) threadsafe::ConditionImpl(mutex.m_impl);
        m_mutex_impl = &mutex.m_impl;
        m_mutex.store(&mutex, std::memory_order_release);
    }
    return m_mutex.load(std::memory_order_relaxed);
}

bool Condition::wait(Mutex& mutex) {
    if (bind(mutex, "wait")) {
        return true;
    }
    int const result = getImpl().wait();
    if (result != 0) {
        report(SOURCE, Chain::NEW, SysErrorId::SPOILED_INTEGRITY, result);
        return true;
    }
    return false;
}

signed char Condition::waitTimeout(Mutex& mutex, AbsTimeT const& deadline) {
    if (bind(mutex, "waitTimeout")) {
        return -1;
    }
    int const result = getImpl().wait_timeout(tarnbase::TimePoint(deadline.value));
    if (result == 0) {
        return 0;
    }
    if (result == threadsafe::ConditionBase::TIMEOUT) {
        return 1;
    }
    report(SOURCE, Chain::NEW, SysErrorId::SPOILED_INTEGRITY, result);
    return -1;
}

bool Condition::signal() {
    // No lock: a woken thread would contend for it with this one. The first waiter binds before it releases the
    // mutex, so a thread that acquires the mutex later sees the binding; any other signal need not reach that
    // wait. Acquire: pairs with the release in `bindFirst`.
    bool const is_bound = m_mutex.load(std::memory_order_acquire) != nullptr;
    int const result = is_bound ? getImpl().signal_one() : 0;
    if (result == 0) {
        return false;
    }
    SysErrorId::Id const id = result == threadsafe::ConditionBase::ERROR_INCONSISTENCY
        ? SysErrorId::SPOILED_INTEGRITY
        : SysErrorId::UNCLASSIFIED;
    report(SOURCE, Chain::NEW, id, result);
    return true;
}

} // namespace vesk
