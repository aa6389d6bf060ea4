#pragma once

#include <common/Shared.h>
#include <vesk/Dispatcher.h>
#include <vesk/Export.h>
#include <vesk/SignalQueue.h>
#include <vesk/Thread.h>
#include <vesk/sched.h>

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/ConditionImpl.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <atomic>

namespace vesk {

/// A thread for the callbacks of signals, with the queue that it serves. It is usually shared:
/// `SignalCatcher` takes a reference on `DEFAULT`. A separate dispatcher keeps the callbacks of a client
/// apart from all others:
///
///     vesk::SignalDispatcher dispatcher("beacon", attributes);
///     vesk::SignalCatcher const catcher(SIGUSR1, dispatcher.getQueue(), blink, &beacon);
///
/// Callbacks run one after the other; a slow callback delays the others. The constructors create and start
/// the thread. If the thread cannot be created or started, the error that `Thread` reports is pending, and
/// there are no callbacks. The constructors, `stop` and the destructor must be called by one thread at a
/// time, and not by the dispatcher's own thread.
class VESK_API SignalDispatcher : private tarnbase::NonCopyable {
public:
    /// The dispatcher of the process. Its thread exists while there are references to it.
    static std::Shared<SignalDispatcher> DEFAULT;

    /// Creates the dispatcher for `DEFAULT`: its thread is named "vesk::SignalDispatcher" and scheduled as
    /// the main thread was when it created the `Vesk`.
    SignalDispatcher();

    /// Creates a dispatcher with a thread of its own.
    /// @param thread_name  as for `Thread`
    /// @param attributes   as for `Thread`
    SignalDispatcher(char const* thread_name, sched::Attr const& attributes);

    /// Creates a dispatcher in the older form.
    /// @param priority  0: the scheduling is inherited. Otherwise the thread keeps the policy of the calling
    ///                  thread, with this priority or nice value.
    SignalDispatcher(char const* thread_name, int const& priority);

    /// Stops the thread unless it is stopped, and closes the pipe. No catcher may use the queue any more.
    ~SignalDispatcher();

    /// Returns the queue for catchers to push into. Signals that are signed on with it are called back on
    /// this dispatcher's thread.
    SignalQueue& getQueue() noexcept { return queue; }

    /// Ends the thread; a second call does nothing. Blocks until the current callback has returned and the
    /// thread has ended. Pending occurrences are not called back any more; pushing stays allowed.
    void stop();

    /// Returns whether a callback runs on the dispatcher's thread, or may be about to begin. Returns false in
    /// that thread itself.
    bool isCallingBack() const noexcept;

    /// Blocks until the current callback, if any, has ended. Must not be called by the dispatcher's own
    /// callbacks.
    void waitForCallback() noexcept;

private:
    /// Forwards the queue's messages to the dispatcher and tracks whether one of them is being carried out.
    class Calls : public Message::Source {
    public:
        explicit Calls(SignalQueue& signal_queue);
        ~Calls() override;

        Message* pop_nonblock() override;

        /// Marks the message that was popped last as carried out.
        void end() noexcept;

        bool isUnderWay() const noexcept { return state != State::NONE; }
        void wait() noexcept;

    private:
        enum class State { NONE, UNDER_WAY, AWAITED };

        SignalQueue& queue;
        std::atomic<State> state{State::NONE};
        threadsafe::MutexImpl mutex; // Used with the condition only.
        threadsafe::ConditionImpl ended;
    };

    static void main(void* signal_dispatcher);
    void start();

    SignalQueue::Notifier notifier;
    SignalQueue queue;
    Calls calls;
    bool stopped = false;
    Dispatcher dispatcher;
    Thread thread;
};

} // namespace vesk
