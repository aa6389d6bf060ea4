#pragma once

#include <common/Shared.h>
#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <csignal>
#include <poll.h>
#include <vector>

namespace vesk {

/// Waits for many descriptors at once (`poll`) and calls back whom they concern. It brings no thread of its own: one
/// calls `poll` in a loop, others add and remove descriptors meanwhile.
///
///     class Connection : public vesk::Poller::Client {
///         int poll_events(int) override { return POLLIN; }
///         void read(int fd) override { ... }
///         void error(int fd) override { ... }               // Dropped by itself; there is no need to remove it.
///     };
///     poller.add(connection, fd);
///     while (!poller.poll()) {}
///
/// A signal that is handled in the polling thread ends the process. In a program with a `Timer`, a `SignalCatcher` or any
/// other handler, the thread blocks signals first:
///
///     vesk::Timer timer(blink, false);              // Made before: its thread is to take the signals.
///     vesk::Poller::SignalsOff const signals_off;
///     while (!poller.poll()) {}
///
/// Neither clients nor descriptors are owned; no descriptor of a client is ever closed here. `remove` a descriptor before
/// closing it: one that is closed in the set counts as failed (`POLLNVAL`), and one whose number was given away again is
/// somebody else's.
///
/// `add`, `remove` and `stop` may be called from any thread and from `read`, `write` and `error`; `poll` by one thread at
/// a time. Each of these calls puts one byte into a pipe (64 KiB as a rule) and each cycle takes one byte out: when so
/// many calls have gathered that the pipe is full, the next one waits, and as `add` and `remove` hold the lock that a new
/// cycle needs, they wait for ever. Nothing is reported: what fails here ends the process through
/// `std::GlobalErrorHandler::doAbort`, with "error locking" or "error unlocking" for an internal lock.
class VESK_API Poller : private tarnbase::NonCopyable {
public:
    class Client;
    class SignalsOff;

    /// The poller of the process, for all that need no thread of their own. It exists while somebody holds a
    /// reference: `std::SharedBase::Ptr<vesk::Poller> const poller(vesk::Poller::DEFAULT);`
    static std::Shared<Poller> DEFAULT;

    /// Makes the pipe with which threads wake the loop (`pipe`). A failure ends the process with
    /// "vesk::Poller::c'tor: cannot create self-pipe, errno=%d (%s)".
    Poller();

    /// Closes the pipe. Clients are not told. No thread may be inside `poll`.
    ~Poller();

    /// Has `client` called about `fd` from the next cycle on. Wakes the loop.
    ///
    /// Nothing looks for a pair that is there already: such a pair gets a second row and each of its calls twice. A
    /// removal of the same pair that still waits for the next cycle is cancelled, with the same effect.
    /// @param client  must stay until the loop has started its next cycle after the removal
    /// @param fd      must be open and, as a rule, non-blocking
    void add(Client& client, int fd);

    /// Takes all descriptors of `client` out at the start of the next cycle, double rows included. Wakes the loop, even
    /// if there is nothing to do. An addition that still waits for its cycle is not taken back.
    ///
    /// There is no silence after it: the cycle under way may still make its calls. Keep the client, and the descriptor
    /// open, until the loop has started its next cycle.
    void remove(Client const& client);

    /// The same for `fd`, whoever its clients are.
    void remove(int fd);

    /// Makes one call of `poll` return true: that under way or else the next. As many stops, as many calls. Takes no
    /// lock. Not a cancellation point, as `add` and `remove` are none.
    void stop();

    /// One cycle: applies the changes, waits without a limit until something is ready, and calls back. All failed
    /// descriptors come first, then all that can be read, then all that can be written; among these the order of `add`.
    /// A descriptor that has failed gets `error` alone, and leaves the set at the start of the next cycle.
    ///
    /// A signal that is handled in this thread meanwhile ends the process, as any failure of the system's call does
    /// ("vesk::Poller::poll: poll failed, errno=%d (%s)"): block signals in the loop's thread, see `SignalsOff`.
    /// Exceptions of clients, and `std::bad_alloc`, pass through; `poll` may be called again. In a steady state it does
    /// not use the heap.
    /// @return true if it was stopped, no client being called then; false after a cycle: call again
    bool poll();

private:
    /// Who wants to hear about which descriptor.
    struct Entry {
        Client* client;
        int fd;

        bool operator==(Entry const& other) const noexcept {
            return client == other.client && fd == other.fd;
        }
    };
    using Entries = std::vector<Entry>;

    /// The two ends of the pipe; -1 if it could not be made.
    struct SelfPipe {
        ~SelfPipe();

        int read_end = -1;
        int write_end = -1;
    };

    /// Who is to be called in one cycle, in this order.
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
    unsigned char receive() const;
    void forget() noexcept;
    void collect(Calls& calls);

    SelfPipe self_pipe;
    threadsafe::MutexImpl mutex; // Guards the entries; the rows are the business of the polling thread.
    Entries additions;
    Entries removals;
    Entries clients;
    std::vector<struct pollfd> fds; // Row 0 is the pipe's, row i + 1 that of clients[i].
    Calls spare_calls;              // Memory for the next cycle's.
};

/// Who is called about a descriptor. All calls come from the thread that is inside `Poller::poll`.
class VESK_API Poller::Client {
public:
    virtual ~Client() = default;

    /// What to wait for on `fd`: `POLLIN`, `POLLOUT`, both or none, of which the lower 16 bits count. Asked in every
    /// cycle with the poller's lock held: must not block, nor call `add` or `remove`. Failures are told whatever it
    /// gives. The base gives 0.
    virtual int poll_events(int fd);

    /// `fd` can be read (`POLLIN`) and has not failed. The base does nothing.
    virtual void read(int fd);

    /// `fd` can be written (`POLLOUT`) and has not failed. The base does nothing.
    virtual void write(int fd);

    /// `fd` has failed: an error, the other end hung up (`POLLHUP`, even with data left to read), or it is not open.
    /// Called once; the descriptor is out of the set when the next cycle starts.
    virtual void error(int fd) = 0;
};

/// Blocks signals in the calling thread while it lives, for a thread that is inside `Poller::poll`. Signals to the process
/// then go to its other threads. Those of the thread's own faults, as `SIGSEGV`, are left alone.
///
/// A thread inherits what is blocked in the thread that starts it. So what starts a thread to take signals is made before
/// this object, or in another thread: the first `Timer` of a priority, the first `SignalCatcher` of the shared form. If all
/// threads block a signal it stays with the kernel: timers do not ring, and `SIGTERM` does not end the process.
class Poller::SignalsOff : private tarnbase::NonCopyable {
public:
    /// `pthread_sigmask`
    SignalsOff() noexcept {
        sigset_t signals;
        sigfillset(&signals);
        for (int const fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
            sigdelset(&signals, fault);
        }
        pthread_sigmask(SIG_BLOCK, &signals, &m_before);
    }

    /// Restores what was blocked before. In the thread of the constructor.
    ~SignalsOff() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before;
};

} // namespace vesk
