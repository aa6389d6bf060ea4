#pragma once

#include <common/Shared.h>
#include <vesk/Export.h>
#include <vesk/common/UniqueFd.h>

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <csignal>
#include <poll.h>
#include <vector>

namespace vesk {

/// An event loop that waits for many descriptors at once (`poll`) and calls their clients back. It has no
/// thread of its own: one thread calls `poll` in a loop, while others add and remove descriptors.
///
///     class Connection : public vesk::Poller::Client {
///         int poll_events(int) override { return POLLIN; }
///         void read(int fd) override { ... }
///         void error(int fd) override { ... } // The poller removes fd by itself.
///     };
///     poller.add(connection, fd);
///     while (!poller.poll()) {}
///
/// A signal that is handled in the polling thread ends the process. In a program with a `Timer`, a
/// `SignalCatcher` or any other handler, the thread must block signals first:
///
///     vesk::Timer timer(blink, false);            // First: its thread receives the signals.
///     vesk::Poller::SignalsOff const signals_off;
///     while (!poller.poll()) {}
///
/// Neither clients nor descriptors are owned, and no descriptor of a client is ever closed here. `remove` a
/// descriptor before closing it: a descriptor that is closed while in the set counts as failed (`POLLNVAL`),
/// and its number may already belong to another file.
///
/// `add`, `remove` and `stop` may be called from any thread and from `read`, `write` and `error`; `poll` by
/// one thread at a time. Each of these calls writes one byte into a pipe (usually 64 KiB), and each cycle
/// reads one byte. When the pipe is full, the next call blocks; as `add` and `remove` hold the lock that a
/// new cycle needs, they then block permanently. Nothing is reported: any failure ends the process through
/// `std::GlobalErrorHandler::doAbort`, with "error locking" or "error unlocking" for an internal lock.
class VESK_API Poller : private tarnbase::NonCopyable {
public:
    class Client;
    class SignalsOff;

    /// The poller of the process, for clients that need no polling thread of their own. It exists while
    /// references to it exist: `std::SharedBase::Ptr<vesk::Poller> const poller(vesk::Poller::DEFAULT);`
    static std::Shared<Poller> DEFAULT;

    /// Creates the pipe with which threads wake the loop (`pipe`). A failure ends the process with
    /// "vesk::Poller::c'tor: cannot create self-pipe, errno=%d (%s)".
    Poller();

    /// Closes the pipe. Does not notify clients. No thread may be inside `poll`.
    ~Poller();

    /// Adds a descriptor, about which `client` is called from the next cycle on. Wakes the loop.
    ///
    /// Does not check for an existing pair: a pair that is added twice gets a second row and receives each of
    /// its calls twice. A removal of the same pair that waits for the next cycle is cancelled, with the same
    /// effect.
    /// @param client  must exist until the loop has started its next cycle after the removal
    /// @param fd      must be open and should be non-blocking
    void add(Client& client, int fd);

    /// Removes all descriptors of `client` at the start of the next cycle, duplicate rows included. Wakes the
    /// loop, even if there is nothing to do. An addition that waits for its cycle is not removed.
    ///
    /// Calls may still follow: the current cycle completes. Keep the client, and keep the descriptor open,
    /// until the loop has started its next cycle.
    void remove(Client const& client);

    /// Removes `fd` from all of its clients, in the same way.
    void remove(int fd);

    /// Makes one call of `poll` return true: the current call, or else the next. Each `stop` ends one call.
    /// Takes no lock. `add`, `remove` and `stop` are not cancellation points.
    void stop();

    /// Runs one cycle: applies the changes, blocks without a limit until a descriptor is ready, and calls the
    /// clients back. All failed descriptors come first, then all readable ones, then all writable ones, each
    /// group in the order of `add`. A descriptor that has failed gets `error` alone, and leaves the set at
    /// the start of the next cycle.
    ///
    /// A signal that is handled in this thread meanwhile ends the process, as any failure of the system call
    /// does ("vesk::Poller::poll: poll failed, errno=%d (%s)"): block signals in the loop's thread, see
    /// `SignalsOff`. Exceptions of clients, and `std::bad_alloc`, pass through; `poll` may be called again.
    /// In a steady state it does not use the heap.
    /// @return true if it was stopped, without a call to a client; false after a cycle: call again
    [[nodiscard]] bool poll();

private:
    /// A client and a descriptor about which it is called.
    struct Entry {
        Client* client;
        int fd;

        bool operator==(Entry const& other) const noexcept {
            return client == other.client && fd == other.fd;
        }
    };
    using Entries = std::vector<Entry>;

    /// The two ends of the pipe; -1 if the pipe could not be created.
    struct SelfPipe {
        ~SelfPipe() {
            read_end.close();
            write_end.close();
        }

        detail::UniqueFd read_end;
        detail::UniqueFd write_end;
    };

    /// The calls of one cycle, in this order.
    struct Calls {
        Entries errors;
        Entries reads;
        Entries writes;
    };
    class CallsOfCycle;

    template <typename Matches>
    void queueRemovals(Matches matches);
    void send(unsigned char command) const noexcept;
    void rebuild(Calls& calls);
    TARN_HIDDEN void changeSet(bool has_failures) TARN_REQUIRES(mutex);
    TARN_HIDDEN void waitForEvents();
    unsigned char receive() const;
    void forget() noexcept;
    void collect(Calls& calls);

    SelfPipe self_pipe;
    threadsafe::MutexImpl mutex;
    Entries additions TARN_GUARDED_BY(mutex);
    Entries removals TARN_GUARDED_BY(mutex);
    Entries clients TARN_GUARDED_BY(mutex);
    std::vector<struct pollfd>
        fds;           // Row 0 is for the pipe, row i + 1 for clients[i]. Used by the polling thread only.
    Calls spare_calls; // Memory that the next cycle reuses.
};

/// A receiver of calls about descriptors. All calls come from the thread that is inside `Poller::poll`.
class VESK_API Poller::Client {
public:
    virtual ~Client() = default;

    /// Returns what to wait for on `fd`: `POLLIN`, `POLLOUT`, both or none, in the lower 16 bits. Called in
    /// every cycle with the poller's lock held: must not block, nor call `add` or `remove`. Failures are
    /// delivered whatever it returns. The base returns 0.
    virtual int poll_events(int fd);

    /// Handles that `fd` is readable (`POLLIN`) and has not failed. The base does nothing.
    virtual void read(int fd);

    /// Handles that `fd` is writable (`POLLOUT`) and has not failed. The base does nothing.
    virtual void write(int fd);

    /// Handles the failure of `fd`: an error, a hangup of the other end (`POLLHUP`, even with data left to
    /// read), or a descriptor that is not open. Called once; the descriptor is out of the set when the next
    /// cycle starts.
    virtual void error(int fd) = 0;
};

/// A guard that blocks signals in the calling thread for the duration of a scope, for a thread that is inside
/// `Poller::poll`. Signals to the process then go to its other threads. Signals for faults of the thread
/// itself, such as `SIGSEGV`, are not blocked.
///
/// A thread inherits the blocked signals of the thread that starts it. Create objects that start a thread to
/// receive signals before this object, or in another thread: the first `Timer` of a priority, the first
/// `SignalCatcher` of the shared form. A signal that all threads block stays pending in the kernel: timers do
/// not ring, and `SIGTERM` does not end the process.
class Poller::SignalsOff : private tarnbase::NonCopyable {
public:
    /// Blocks the signals (`pthread_sigmask`).
    SignalsOff() noexcept {
        sigset_t signals;
        sigfillset(&signals);
        for (int const fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
            sigdelset(&signals, fault);
        }
        pthread_sigmask(SIG_BLOCK, &signals, &m_before);
    }

    /// Restores the previously blocked signals. Must run in the thread of the constructor.
    ~SignalsOff() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before;
};

} // namespace vesk
