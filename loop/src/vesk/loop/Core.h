#pragma once

#include "Source.h"

#include <vesk/loop/Loop.h>

#include <tarncommon/threadsafe/Annotations.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <pthread.h>
#include <sys/epoll.h>
#include <vector>

namespace vesk::loop::detail {

/// A mutex that the thread-safety analysis knows.
class TARN_LOCK Lock {
public:
    void lock() TARN_ACQUIRE() TARN_NOT_ANALYZED { m_mutex.lock(); }
    void unlock() TARN_RELEASE() TARN_NOT_ANALYZED { m_mutex.unlock(); }
    /// Waits for a notification. Releases the mutex meanwhile.
    void wait(std::condition_variable& condition) TARN_NOT_ANALYZED {
        std::unique_lock<std::mutex> lock(m_mutex, std::adopt_lock);
        condition.wait(lock);
        lock.release();
    }

private:
    std::mutex m_mutex;
};

/// Holds a lock for the duration of a scope.
class TARN_SCOPED_LOCK Locked {
public:
    explicit Locked(Lock& lock) TARN_ACQUIRE(lock) TARN_NOT_ANALYZED : m_lock(lock) { m_lock.lock(); }
    ~Locked() TARN_RELEASE() TARN_NOT_ANALYZED { m_lock.unlock(); }
    Locked(Locked const&) = delete;
    Locked& operator=(Locked const&) = delete;

private:
    Lock& m_lock;
};

/// Returns a moment later or earlier, or the last or first one that there is.
Clock::time_point add(Clock::time_point moment, Clock::duration time) noexcept;

/// The state of a loop. Its watches own it too, so that they can outlive the loop.
///
/// A round waits for descriptors (`epoll`), moves the sources that are due to the ready list of their priority, and
/// fires them in this order. The lock is never held during a callback.
class Core {
public:
    static constexpr size_t PRIORITIES = 3;

    Core() noexcept;
    ~Core();
    Core(Core const&) = delete;
    Core& operator=(Core const&) = delete;

    // ---- for the loop ----

    /// Returns `errno` of the failure that left the loop without its descriptors, `ECHILD` in a child of `fork`,
    /// otherwise 0.
    int getState() const noexcept { return isInherited() ? ECHILD : m_creation_error; }
    /// Makes the calling thread the loop's thread. Returns false if there is one already.
    bool enter() noexcept;
    void leave() noexcept { m_thread.store(pthread_t{}, std::memory_order_release); }
    /// Runs one round. Stores whether a callback was called. Returns `errno` of a wait that failed, otherwise 0.
    int runOnce(Clock::duration timeout, bool& called) TARN_EXCLUDES(m_lock);
    /// Returns whether to stop, and forgets it.
    bool takeStop() noexcept { return m_stop && m_stop.exchange(false); }
    void stop() noexcept TARN_EXCLUDES(m_lock);
    /// Returns whether there is nothing left to wait for.
    bool isDone() noexcept TARN_EXCLUDES(m_lock);
    /// Returns the descriptor of the loop, or -1 with `errno` set.
    int exposeFd() noexcept TARN_EXCLUDES(m_lock);
    void post(Callback<void()>&& call, Priority priority) TARN_EXCLUDES(m_lock);
    void setExceptionHook(Callback<void(std::exception_ptr)> hook) TARN_EXCLUDES(m_lock);
    /// The callback that runs, for a watchdog.
    struct Running {
        unsigned long call = 0; ///< Counts begins and ends: odd during a callback.
        Place place{};
    };
    Running getRunning() noexcept TARN_EXCLUDES(m_lock);
    /// Ends all watches.
    void close() noexcept TARN_EXCLUDES(m_lock);

    // ---- for watches ----

    /// Return `errno`, 0 on success. `EEXIST`: the loop watches this direction of the descriptor already.
    int attach(FdSource& source) TARN_EXCLUDES(m_lock);
    int attach(SignalSource& source) TARN_EXCLUDES(m_lock);
    void attach(IdleSource& source) TARN_EXCLUDES(m_lock);
    void attach(JobSource& source) noexcept TARN_EXCLUDES(m_lock);
    void attach(TimerSource& source, Clock::time_point deadline) TARN_EXCLUDES(m_lock);
    void restart(TimerSource& source, Clock::time_point deadline) noexcept TARN_EXCLUDES(m_lock);
    void cancel(Source& source) noexcept TARN_EXCLUDES(m_lock);
    bool isActive(Source const& source) noexcept TARN_EXCLUDES(m_lock);
    /// Ends the activity of a source. Returns false if it has ended before.
    bool finish(Source& source) noexcept TARN_EXCLUDES(m_lock);
    /// Sends a signal to a child that has not been reaped. Returns `errno`, 0 on success.
    int signal(Source const& child, pid_t pid, int number) noexcept TARN_EXCLUDES(m_lock);

    // ---- for sources, which call with the lock held ----

    void detach(FdSource& source) noexcept TARN_NOT_ANALYZED;
    void detach(SignalSource& source) noexcept TARN_NOT_ANALYZED;
    void detach(IdleSource& source) noexcept TARN_NOT_ANALYZED;
    void detach(TimerSource& source) noexcept TARN_NOT_ANALYZED;
    /// Starts a timer again. Needs no memory: the heap has kept the capacity for it.
    void renew(TimerSource& source) noexcept TARN_NOT_ANALYZED;
    void leave(TimerSource& source) noexcept TARN_NOT_ANALYZED;

private:
    /// The two directions of a descriptor. The index is its number.
    struct Slot {
        FdSource* reader = nullptr;
        FdSource* writer = nullptr;
        uint32_t events = 0; ///< As the system has them.
        /// Counts the descriptors that had this number, so that an event of a former one is not taken for one of
        /// the present one.
        uint32_t generation = 0;
    };

    using Calls = std::vector<Callback<void()>>;
    /// Posted calls of one priority that the loop's thread has taken. It calls those from `next` on.
    struct Batch {
        bool isOver() const noexcept { return next == calls.size(); }
        Calls calls;
        size_t next = 0;
    };

    class Unlocked;

    // The order of the numbers by which `epoll` tells the loop's own descriptors from those of sources.
    static constexpr int EVENT = -1;
    static constexpr int TIMER = -2;
    static constexpr int SIGNALS = -3;

    /// What an event carries: the number, and the generation of its slot.
    static uint64_t toData(int number, uint32_t generation) noexcept {
        return static_cast<uint64_t>(generation) << 32 | static_cast<uint32_t>(number);
    }
    bool isInherited() const noexcept;
    bool add(UniqueFd const& fd, int number, uint32_t events) noexcept;
    void setActive(Source& source) noexcept TARN_REQUIRES(m_lock);
    void setOver(Source& source) noexcept TARN_REQUIRES(m_lock);
    void setReady(Source& source) noexcept TARN_REQUIRES(m_lock);
    bool isLoopThread() const noexcept { return pthread_equal(m_thread, pthread_self()) != 0; }
    bool hasPosts() const noexcept TARN_REQUIRES(m_lock) { return m_has_batch || m_has_posts; }
    bool hasReady() const noexcept TARN_REQUIRES(m_lock);
    void wake() noexcept;
    void countCalls(unsigned long ends) noexcept {
        m_calls.store(m_calls.load(std::memory_order_relaxed) + ends, std::memory_order_relaxed);
    }

    Clock::duration getWait(Clock::duration timeout) const noexcept TARN_REQUIRES(m_lock);
    int wait(Clock::duration limit);
    void collect(epoll_event const& event) noexcept TARN_REQUIRES(m_lock);
    void collectOwn(int number) noexcept TARN_REQUIRES(m_lock);
    void collectSignals() noexcept TARN_REQUIRES(m_lock);
    void collectTimers() noexcept TARN_REQUIRES(m_lock);
    bool fireAll() TARN_REQUIRES(m_lock);
    bool firePosts(Batch& batch) TARN_REQUIRES(m_lock) TARN_NOT_ANALYZED;
    void takePosts() TARN_REQUIRES(m_lock) TARN_EXCLUDES(m_post_lock);
    void giveUpPosts(Calls (&posts)[PRIORITIES], Batch (&batches)[PRIORITIES]) noexcept TARN_REQUIRES(m_lock)
        TARN_EXCLUDES(m_post_lock);
    void fire(Source& source) TARN_REQUIRES(m_lock);
    template <typename Call>
    void callOut(Call&& call) TARN_EXCLUDES(m_lock);
    void handle(std::exception_ptr exception) noexcept TARN_EXCLUDES(m_lock);

    int update(int fd) noexcept TARN_REQUIRES(m_lock);
    int updateSignals() noexcept TARN_REQUIRES(m_lock);
    bool makeTimerFd() noexcept TARN_REQUIRES(m_lock);
    void armTimerFd() noexcept TARN_REQUIRES(m_lock);

    static bool isFar(Clock::time_point moment, Clock::duration time) noexcept;
    static bool isBefore(TimerSource const& one, TimerSource const& other) noexcept;
    void place(size_t index, TimerSource& source) noexcept TARN_REQUIRES(m_lock);
    void moveUp(TimerSource& source) noexcept TARN_REQUIRES(m_lock);
    void moveDown(TimerSource& source) noexcept TARN_REQUIRES(m_lock);
    void begin(TimerSource& source, Clock::time_point deadline) noexcept TARN_REQUIRES(m_lock);
    void insert(TimerSource& source) noexcept TARN_REQUIRES(m_lock);
    void extract(TimerSource& source) noexcept TARN_REQUIRES(m_lock);

    unsigned int const m_forks;
    int m_creation_error = 0;
    UniqueFd m_epoll;
    UniqueFd m_event;
    std::atomic<bool> m_stop{false};
    // Whether the loop's thread looks at all that other threads change before it waits, so that nothing must end its wait.
    // It clears this and then reads `m_has_posts`; a thread that posts sets that and then reads this.
    std::atomic<bool> m_is_awake{true};
    std::atomic<bool> m_is_woken{false};

    Lock m_lock;
    std::condition_variable m_callback_over;
    std::atomic<pthread_t> m_thread{pthread_t{}}; ///< That runs the loop.
    // The source of the callback that runs.
    Source* m_running TARN_GUARDED_BY(m_lock) = nullptr;
    std::shared_ptr<Source> m_kept; ///< That source, once its watch is gone. For the loop's thread.
    size_t m_waiting TARN_GUARDED_BY(m_lock) = 0; ///< Threads that wait for the end of a callback.
    std::atomic<unsigned long> m_calls{0};        ///< Changed by the loop's thread only.
    size_t m_active TARN_GUARDED_BY(m_lock) = 0;
    Link m_ready[PRIORITIES] TARN_GUARDED_BY(m_lock);
    // What fires in this round.
    Link m_due[PRIORITIES] TARN_GUARDED_BY(m_lock);
    bool m_has_batch TARN_GUARDED_BY(m_lock) = false;
    std::vector<Slot> m_slots TARN_GUARDED_BY(m_lock);
    std::vector<SignalSource*> m_signals TARN_GUARDED_BY(m_lock);
    std::vector<IdleSource*> m_idle TARN_GUARDED_BY(m_lock);
    UniqueFd m_signal_fd TARN_GUARDED_BY(m_lock);

    // A heap of four children per node: fewer levels, and the children lie in one cache line.
    std::vector<TimerSource*> m_heap TARN_GUARDED_BY(m_lock);
    // The number of timers that exist. The heap has room for all, so that a restart needs no memory.
    size_t m_timers TARN_GUARDED_BY(m_lock) = 0;
    unsigned long long m_starts TARN_GUARDED_BY(m_lock) = 0;
    // For the descriptor of the loop, or where the system cannot wait for less than a millisecond.
    UniqueFd m_timer_fd TARN_GUARDED_BY(m_lock);
    Clock::time_point m_armed TARN_GUARDED_BY(m_lock) = Clock::time_point::max();

    // Used by the loop's thread only.
    std::array<epoll_event, 128> m_events{};
    Batch m_batches[PRIORITIES];
    bool m_waits_precisely = true;
    std::shared_ptr<Callback<void(std::exception_ptr)>> m_exception_hook TARN_GUARDED_BY(m_lock);

    // Far from `m_lock`, which the loop's thread takes several times in a round: its cache line would go to and fro
    // between this thread and those that post. Acquired alone, or after `m_lock`.
    Lock m_post_lock;
    Calls m_posts[PRIORITIES] TARN_GUARDED_BY(m_post_lock);
    std::atomic<bool> m_has_posts{false}; ///< Changed with the lock held.
};

} // namespace vesk::loop::detail
