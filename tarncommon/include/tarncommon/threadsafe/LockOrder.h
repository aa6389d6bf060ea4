#pragma once

#include <tarncommon/Checks.h>
#include <tarncommon/Export.h>

/// The locks inside the libraries, in the order in which a thread may acquire them. A thread that holds a lock must
/// not acquire one that stands above it, nor a second one of the same name unless that row says NESTED.
/// `docs/architecture.md` has the same table with the purpose of each lock.
#define TARN_LOCKS(ROW)                                                                                      \
    ROW(SHARED_OBJECT, NESTED)                                                                               \
    ROW(LAZY_INIT, ONCE)                                                                                     \
    ROW(SYSTEM_LOGGER, ONCE)                                                                                 \
    ROW(CHILD, ONCE)                                                                                         \
    ROW(COLLECTOR, ONCE)                                                                                     \
    ROW(ALARM_ENGINE, ONCE)                                                                                  \
    ROW(ALARM_RINGERS, ONCE)                                                                                 \
    ROW(SIGNAL_CATCHERS, ONCE)                                                                               \
    ROW(SIGNAL_QUEUE, ONCE)                                                                                  \
    ROW(SIGNAL_CALLS, ONCE)                                                                                  \
    ROW(DISPATCHER, ONCE)                                                                                    \
    ROW(MESSAGE_QUEUE, ONCE)                                                                                 \
    ROW(NOTIFIER, ONCE)                                                                                      \
    ROW(POLLER, ONCE)                                                                                        \
    ROW(DISCOVERY_RESULTS, ONCE)                                                                             \
    ROW(THREAD_STATE, ONCE)                                                                                  \
    ROW(THREAD_LINK, ONCE)                                                                                   \
    ROW(CONDITION_BINDING, ONCE)                                                                             \
    ROW(COUNTERS, ONCE)                                                                                      \
    ROW(TRACE_CHANNELS, ONCE)

#if defined(TARN_CHECKS_LOCK_ORDER)

namespace threadsafe {

/// The names. Locks of users have none and are not checked.
enum class LockName : unsigned char {
    UNNAMED,
#define TARN_LOCK_ENUMERATOR(name, nesting) name,
    TARN_LOCKS(TARN_LOCK_ENUMERATOR)
#undef TARN_LOCK_ENUMERATOR
};

/// Knows which named locks the calling thread holds. Allocates nothing and takes no lock.
class TARN_API LockOrder {
public:
    /// Called before a lock is acquired. Ends the process through `GlobalErrorHandler::doAbort`, with the names of both
    /// locks, if the order forbids it. A lock that the thread holds already is not checked: it is recursive, or it
    /// reports the attempt.
    static void check(void const* lock, LockName name) noexcept;
    /// Called after a lock was acquired.
    static void enter(void const* lock, LockName name) noexcept;
    /// Called after a lock was released.
    static void leave(void const* lock, LockName name) noexcept;
};

} // namespace threadsafe

/// The argument that gives a lock its name; no argument where the order is not checked.
#define TARN_LOCK_NAME(name) threadsafe::LockName::name
/// Names a lock after its construction.
#define TARN_NAME_LOCK(lock, name) (lock).setOrderName(threadsafe::LockName::name)

#else

#define TARN_LOCK_NAME(name)
#define TARN_NAME_LOCK(lock, name) static_cast<void>(0)

#endif
