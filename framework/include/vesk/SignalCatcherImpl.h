#pragma once

#include <common/Shared.h>
#include <vesk/Export.h>
#include <vesk/SignalQueue.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <csignal>
#include <cstdint>

namespace vesk {

class SignalDispatcher;

/// The implementation of `SignalCatcher`; see there.
class VESK_API SignalCatcherImpl : private tarnbase::NonCopyable {
public:
    /// Signs on with the queue, then installs the handler (`sigaction`), which runs with all signals blocked
    /// and with `SA_RESTART`. The cancellation of a thread that runs the handler takes effect after it.
    ///
    /// A broken precondition goes to `std::GlobalErrorHandler::doAssert`, with the condition as its text. A
    /// number out of range, or a queue on which the signal is signed on already, leaves an object that
    /// catches nothing. A handler that the signal had before breaks a precondition as well: it is replaced,
    /// and restored at the end. This includes the handler of a catcher for another queue, which gets no
    /// signals meanwhile. A signal that the system does not let a process catch is not an error: the callback
    /// is never called.
    ///
    /// @param signal_number      the signal, 0 to 64
    /// @param signal_dispatcher  kept as long as this object; may be empty
    /// @param signal_queue       must outlive this object
    SignalCatcherImpl(
        int signal_number, std::SharedBase::Ptr<SignalDispatcher> const& signal_dispatcher,
        SignalQueue& signal_queue, void (*callback)(int, void*), void* data);

    /// Restores the old action and signs off: pending occurrences are discarded, though a callback may be
    /// running. Waits for signal handlers that are pushing into the queue in other threads. If the signal has
    /// a handler of other code, `std::GlobalErrorHandler::doAssert` gets "action.sa_handler==enqueue_signal";
    /// that handler has been replaced by then. If a newer catcher has the signal, the action stays, and the
    /// newer catcher restores the old action when it is destroyed.
    ~SignalCatcherImpl();

    /// Pushes the signal into the queue of its catcher, or drops it if there is no catcher. This is the
    /// signal handler. Preserves `errno`.
    static void enqueue_signal(int signal_number);

private:
    /// The handler's data about a signal, since a handler has no argument of its own.
    struct Row {
        std::atomic<SignalQueue*> queue{nullptr};
        // Handlers between their look-up of the queue and the end of their push. The destructor of a catcher
        // waits for them.
        std::atomic<uint32_t> pushing{0};
        SignalCatcherImpl* newest = nullptr; // Not used by the handler.
    };

    void install();
    void checkOldAction() const;
    void release();
    bool uninstall();
    bool putActionBack() const;
    void waitForHandlers() const;

    static Row info[TARN_NSIGNALS];

    int signal;
    std::SharedBase::Ptr<SignalDispatcher> dispatcher;
    struct sigaction old_action {};
    bool installed = false;
    SignalQueue* queue = nullptr;       // Null if nothing was signed on.
    SignalCatcherImpl* older = nullptr; // The catcher that this one has replaced.
};

} // namespace vesk
