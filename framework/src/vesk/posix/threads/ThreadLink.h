#pragma once

#include "vesk/posix/detail/FamilyIndex.h"

#include <vesk/Thread.h>
#include <vesk/common/AbortingLock.h>

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <atomic>
#include <cerrno>

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(Thread::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::THREAD;
}

} // namespace vesk

namespace vesk::detail {

/// The `file` of every report about threads, whichever source file makes it.
constexpr char const* THREAD_SOURCE = "framework/src/vesk/posix/Thread";

/// Stores a handler in the first free slot. Returns true if there is none. Only one thread ever registers
/// with these slots.
template <size_t N>
bool addExitHandler(std::atomic<Thread::ExitHandler> (&slots)[N], Thread::ExitHandler handler) noexcept {
    for (std::atomic<Thread::ExitHandler>& slot : slots) {
        if (slot.load(std::memory_order_relaxed) == nullptr) {
            slot.store(handler, std::memory_order_relaxed);
            return false;
        }
    }
    return true;
}

/// The state that a thread and its `Thread` object share. It exists until both have left it. Either side may
/// therefore query it about the other at any time, while the object may be destroyed without notice to the
/// thread, and the thread may end without notice to the object.
///
/// It holds the state, its lock and its condition: a thread that waits in `suspend` may leave that after its
/// object was destroyed.
///
/// It decides which side ends a thread. Both sides come here under one lock: the thread when its body has
/// returned, `terminate` to cancel it. The first side wins. If that is the thread, `terminate` refuses, and
/// the object stays valid, since it must not be destroyed before the join. If it is `terminate`, the thread
/// learns here, and not from the object, that it must not use the object again: the owner may destroy the
/// object as soon as `terminate` returns.
///
/// It also prevents system calls on a thread that has ended, since its handle and kernel id may then belong
/// to another thread: the last action of a thread is to record its end here, and the calls are made under the
/// lock.
class ThreadLink : public Thread::Shared, private tarnbase::NonCopyable {
public:
    /// Creates the link for both sides. Waits for memory if there is none.
    static ThreadLink& make();

    /// Releases the object's side.
    void leaveObject() noexcept { release(); }

    /// Releases the thread's side. From here on the thread only destroys its store of errors. Also used for a
    /// thread that was not created.
    void leaveThread();

    /// Claims the end of the thread after its body has returned. Returns true if the thread must update the
    /// object, which exists until then; false if the object may be destroyed.
    bool claimEnd();

    /// Ends the thread for the object's side. Calls `cancel` unless the end of the thread came first;
    /// `cancel` returns an error number, 0 for success. Returns that number, or `TOO_LATE`.
    template <typename Cancel>
    int endThread(char const* function, Cancel cancel) {
        Lock const lock(m_lock, THREAD_SOURCE, function);
        if (m_end != End::OPEN || m_gone) {
            return TOO_LATE;
        }
        int const error = cancel();
        if (error == 0) {
            m_end = End::BY_OBJECT;
        }
        return error;
    }
    static constexpr int TOO_LATE = -1;

    /// Keeps a thread that has not ended from ending during a scope, so that its handle and its kernel id
    /// stay valid.
    class [[nodiscard]] Use : private tarnbase::NonCopyable {
    public:
        Use(ThreadLink& link, char const* function)
            : m_lock(link.m_lock, THREAD_SOURCE, function), m_gone(link.m_gone) {}

        /// Makes a system call that returns its error number. Returns ESRCH without the call if the thread
        /// has ended.
        template <typename Call>
        int call(Call system_call) const {
            return m_gone ? ESRCH : system_call();
        }

    private:
        AbortingLock<threadsafe::MutexImpl> m_lock;
        bool m_gone;
    };

    // Written by the thread, read by the thread that ends it.
    std::atomic<Thread::ExitHandler> m_exit_handlers[Thread::EXIT_HANDLERS] = {};

private:
    using Lock = AbortingLock<threadsafe::MutexImpl>;

    enum class End { OPEN, BY_THREAD, BY_OBJECT };

    ThreadLink() : m_lock(false) { TARN_NAME_LOCK(m_lock, THREAD_LINK); }
    ~ThreadLink() = default;

    void release() noexcept;

    threadsafe::MutexImpl m_lock; // Acquired after the state mutex where both are needed.
    End m_end TARN_GUARDED_BY(m_lock) = End::OPEN;
    bool m_gone TARN_GUARDED_BY(m_lock) = false;
    std::atomic<int> m_sides{2};
};

} // namespace vesk::detail
