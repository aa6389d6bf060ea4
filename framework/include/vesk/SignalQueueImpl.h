#pragma once

#include <vesk/SignalQueuePosixBase.h>

#include <sys/select.h>
#include <sys/types.h>

namespace vesk {

/// The half of a `SignalQueue` that depends on how a signal handler can wake a thread: by a byte in a pipe.
class VESK_API SignalQueueImpl : public SignalQueuePosixBase {
public:
    class NotifierImpl;
    class SelfPipe;

    using SignalQueuePosixBase::SignalQueuePosixBase;
    ~SignalQueueImpl() override;
};

/// A pipe with which a thread, or a signal handler in it, wakes another one. Writing never blocks, reading does.
class VESK_API SignalQueueImpl::SelfPipe : private tarnbase::NonCopyable {
public:
    /// Makes the pipe (`pipe`, `fcntl`). Both ends are inherited by new programs.
    ///
    /// Failures go to `std::GlobalErrorHandler::doAssert`: "result==0" with "couldn't create self-pipe", also if its
    /// number is beyond what `select` can wait for (`FD_SETSIZE`), and there is no pipe then: waiting sleeps until a
    /// signal interrupts it, and the first `NotifierImpl::signal` ends the process. "errno==0" with "couldn't configure
    /// self-pipe as non-blocking": the pipe works, but a writer waits for room if it is full.
    SelfPipe();

    /// Closes the read end, then the write end.
    ~SelfPipe();

    /// `read` on the read end, with its result. Blocks while the pipe is empty. A cancellation point.
    ssize_t read(void* buffer, unsigned int length);

    /// `write` on the write end, with its result. A cancellation point.
    ssize_t write(void const* buffer, unsigned int length);

    /// Puts the read end into a set for `select`.
    /// @param highest  raised to the read end's number plus 1 if it is not above it: the first argument of `select`
    void set(fd_set* set, int& highest) const;

    /// Whether the read end is in a set.
    bool is_set(fd_set const* set) const;

private:
    bool isOpen() const noexcept { return read_end >= 0; }
    void close() noexcept;

    int read_end = -1;
    int write_end = -1;
};

/// A notifier whose `signal` may be called from signal handlers: it writes a byte into a pipe.
class VESK_API SignalQueueImpl::NotifierImpl : public Dispatcher::Notifier, private tarnbase::NonCopyable {
public:
    /// Makes the pipe; see `SelfPipe` for its failures.
    NotifierImpl();

    /// Closes the pipe.
    ~NotifierImpl() override;

    /// Waits for a byte in the pipe (`select`) and takes one, even if there are more: so each `signal` ends one wait. May
    /// return early if a signal handler runs in the thread meanwhile. A cancellation point.
    void wait() override;

    /// Writes a byte; if the pipe is full, the wake-up is on its way already. Callable from any thread and from signal
    /// handlers: takes no lock, does not allocate or block, is no cancellation point. May change `errno`. Any other
    /// failure ends the process through `tarnbase::abort` with "write to self-pipe failed with errno=%d (%s)".
    void signal() override;

private:
    SelfPipe self_pipe;
};

} // namespace vesk
