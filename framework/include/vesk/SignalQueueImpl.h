#pragma once

#include <vesk/SignalQueuePosixBase.h>
#include <vesk/common/UniqueFd.h>

#include <sys/select.h>
#include <sys/types.h>

namespace vesk {

/// The half of a `SignalQueue` that depends on how a signal handler can wake a thread: with a byte in a pipe.
class VESK_API SignalQueueImpl : public SignalQueuePosixBase {
public:
    class NotifierImpl;
    class SelfPipe;

    using SignalQueuePosixBase::SignalQueuePosixBase;
    ~SignalQueueImpl() override;
};

/// A pipe with which a thread, or a signal handler in it, wakes another thread. Writing never blocks, reading
/// does.
class VESK_API SignalQueueImpl::SelfPipe : private tarnbase::NonCopyable {
public:
    /// Creates the pipe (`pipe`, `fcntl`). New programs inherit both ends.
    ///
    /// Failures go to `std::GlobalErrorHandler::doAssert`. "result==0" with "couldn't create self-pipe":
    /// there is no pipe, waiting sleeps until a signal interrupts it, and the first `NotifierImpl::signal`
    /// ends the process. "errno==0" with "couldn't configure self-pipe as non-blocking": the pipe works, but
    /// a writer blocks while it is full.
    SelfPipe();

    /// Closes the read end, then the write end.
    ~SelfPipe();

    /// Calls `read` on the read end, and returns its result. Blocks while the pipe is empty. A cancellation
    /// point.
    ssize_t read(void* buffer, unsigned int length);

    /// Writes to the write end (`write`), and returns the result of the call. Not a cancellation point. May be
    /// called from signal handlers.
    ssize_t write(void const* buffer, unsigned int length);

    /// Adds the read end to a set for `select`. A set holds descriptors below `FD_SETSIZE` (1024). With a
    /// higher descriptor the set is unchanged, and `std::GlobalErrorHandler::doAssert` gets
    /// "read_end<FD_SETSIZE". `poll` has no such limit, see `getReadEnd`.
    /// @param highest  the first argument of `select`; raised to the read end's number plus 1 if it is not
    ///                 above that number
    void set(fd_set* set, int& highest) const;

    /// Returns whether the read end is in a set. Returns false if no set can hold it.
    bool is_set(fd_set const* set) const;

    /// Returns the read end, for `poll`. Returns -1 without a pipe, which `poll` ignores. This object keeps
    /// the ownership.
    int getReadEnd() const noexcept { return read_end.get(); }

private:
    detail::UniqueFd read_end;
    detail::UniqueFd write_end;
};

/// A notifier with a `signal` that may be called from signal handlers: it writes a byte into a pipe.
class VESK_API SignalQueueImpl::NotifierImpl : public Dispatcher::Notifier, private tarnbase::NonCopyable {
public:
    /// Creates the pipe; see `SelfPipe` for its failures.
    NotifierImpl();

    /// Closes the pipe.
    ~NotifierImpl() override;

    /// Blocks until there is a byte in the pipe and takes one byte (`read`), even if there are more, so that
    /// each `signal` ends one wait. Returns early if a signal handler without `SA_RESTART` runs in the thread
    /// meanwhile and leaves nothing in the pipe. A cancellation point.
    void wait() override;

    /// Writes a byte. A full pipe is not a failure: a wake-up is pending then. May be called from any thread
    /// and from signal handlers: takes no lock, does not allocate or block, and is not a cancellation point.
    /// May change `errno`. Any other failure ends the process through `tarnbase::abort` with "write to
    /// self-pipe failed with errno=%d (%s)".
    void signal() override;

private:
    SelfPipe self_pipe;
};

} // namespace vesk
