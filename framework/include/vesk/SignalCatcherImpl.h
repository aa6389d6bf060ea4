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

/// What `SignalCatcher` consists of; see there.
class VESK_API SignalCatcherImpl : private tarnbase::NonCopyable {
public:
    /// Signs on with the queue, then installs the handler (`sigaction`): with all signals blocked while it runs, and
    /// `SA_RESTART`.
    ///
    /// Broken preconditions go to `std::GlobalErrorHandler::doAssert`, with the condition as its text. Those on the number
    /// and on a queue that has the signal signed on already leave an object that catches nothing; if the signal had a real
    /// handler before, it is replaced and comes back in the end. That includes the handler of a catcher for another queue,
    /// which gets no signals meanwhile. A signal that the system does not let a process catch is no error: it is never
    /// called back.
    ///
    /// @param signal_number      the signal, 0 to 64
    /// @param signal_dispatcher  kept as long as this object; may be empty
    /// @param signal_queue       must outlive this object
    SignalCatcherImpl(
        int signal_number, std::SharedBase::Ptr<SignalDispatcher> const& signal_dispatcher,
        SignalQueue& signal_queue, void (*callback)(int, void*), void* data);

    /// Puts the old action back and signs off: what is pending is forgotten, though a callback may be under way. Waits for
    /// signal handlers that are just pushing into the queue in other threads. Somebody else's handler for the signal goes
    /// to `std::GlobalErrorHandler::doAssert` with "action.sa_handler==enqueue_signal"; it has been replaced by then. The
    /// action stays if a newer catcher has taken the signal over, which puts the old action back when it ends.
    ~SignalCatcherImpl();

    /// The handler. Pushes the signal into the queue of its catcher, or drops it if there is none. Leaves `errno` alone.
    static void enqueue_signal(int signal_number);

private:
    /// What the handler knows about a signal, since it gets no argument of its own.
    struct Row {
        std::atomic<SignalQueue*> queue{nullptr};
        // Handlers that are between looking for the queue and the end of their push. The end of a catcher waits for them.
        std::atomic<uint32_t> pushing{0};
        SignalCatcherImpl* newest = nullptr; // The handler does not look at it.
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
    SignalCatcherImpl* older = nullptr; // The catcher of the same signal whose place this one has taken.
};

} // namespace vesk
