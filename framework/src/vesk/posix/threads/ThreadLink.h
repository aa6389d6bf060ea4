#pragma once

#include <vesk/Thread.h>
#include <vesk/common/AbortingLock.h>

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <atomic>
#include <cerrno>

namespace vesk::detail {

/// The `file` of every report about threads, whichever source makes it.
constexpr char const* THREAD_SOURCE = "framework/src/vesk/posix/Thread";

/// Puts a handler into the first free slot. True if there is none. Only one thread ever registers with these slots.
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

/// What a thread and its `Thread` object share. It lives until both are done with it, so either may ask it about the
/// other at any time, while the object may be gone without the thread knowing, and the thread without the object.
///
/// It holds the state, its lock and its condition: a thread that waits in `suspend` may leave that when its object is gone.
///
/// It settles who ends a thread. Both sides come here under one lock: the thread when its body has returned, `terminate`
/// to cancel it. The first one wins. If it is the thread, `terminate` refuses, and the object stays valid, since nobody
/// may destroy it before it was joined. If it is `terminate`, the thread has learnt here, and not from the object, that
/// it must not touch the object again: its owner may destroy it as soon as `terminate` returns.
///
/// It also keeps system calls from going to a thread that is gone, whose handle and kernel id may belong to another one
/// by then: the thread's last deed is to say so here, and the calls are made under the lock.
class ThreadLink : public Thread::Shared, private tarnbase::NonCopyable {
public:
    /// Made for both sides at once. Waits for memory if there is none.
    static ThreadLink& make();

    /// The object is done with it.
    void leaveObject() noexcept { release(); }

    /// The thread is done with it, and with its life but for its store of errors. Also for one that was not created.
    void leaveThread();

    /// The thread's body has returned. True if the object is to be told and stays until then; false if it may be gone.
    bool claimEnd();

    /// Ends the thread for the object's side. `cancel` is called if the thread has not come to its end before, and gives
    /// an error number, 0 for success. Returns it, or `TOO_LATE`.
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

    /// While it lives, a thread that is there stays there, so that its handle and its kernel id are its own.
    class [[nodiscard]] Use : private tarnbase::NonCopyable {
    public:
        Use(ThreadLink& link, char const* function)
            : m_lock(link.m_lock, THREAD_SOURCE, function), m_gone(link.m_gone) {}

        /// Makes a system call that returns its error number. It has no thread to find if that is gone.
        template <typename Call>
        int call(Call system_call) const {
            return m_gone ? ESRCH : system_call();
        }

    private:
        AbortingLock<threadsafe::MutexImpl> m_lock;
        bool m_gone;
    };

    // Written by the thread, read by whoever ends it.
    std::atomic<Thread::ExitHandler> m_exit_handlers[Thread::EXIT_HANDLERS] = {};

private:
    using Lock = AbortingLock<threadsafe::MutexImpl>;

    enum class End { OPEN, BY_THREAD, BY_OBJECT };

    ThreadLink() : m_lock(false) {}
    ~ThreadLink() = default;

    void release() noexcept;

    threadsafe::MutexImpl m_lock; // Taken after the state mutex, where both are.
    End m_end = End::OPEN;
    bool m_gone = false;
    std::atomic<int> m_sides{2};
};

} // namespace vesk::detail
