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

/// A thread for the callbacks of signals, with the queue that it serves. As a rule it is not made but shared:
/// `SignalCatcher` takes a reference on `DEFAULT`. One of its own keeps the callbacks of a client apart from all others:
///
///     vesk::SignalDispatcher dispatcher("beacon", attributes);
///     vesk::SignalCatcher const catcher(SIGUSR1, dispatcher.getQueue(), blink, &beacon);
///
/// Callbacks run one after the other; a slow one delays the rest. The constructors make and start the thread. A thread
/// that cannot be made or started leaves the error pending that `Thread` reports, and the object calls nobody back. The
/// constructors, `stop` and the destructor are for one thread at a time, and not for that of the dispatcher.
class VESK_API SignalDispatcher : private tarnbase::NonCopyable {
public:
    /// The dispatcher of the process. Its thread exists while somebody holds a reference.
    static std::Shared<SignalDispatcher> DEFAULT;

    /// The one for `DEFAULT`: its thread is named "vesk::SignalDispatcher" and scheduled as the main thread was when it
    /// made the `Vesk`.
    SignalDispatcher();

    /// @param thread_name  as for `Thread`
    /// @param attributes   as for `Thread`
    SignalDispatcher(char const* thread_name, sched::Attr const& attributes);

    /// The older form of the one above.
    /// @param priority  0: the scheduling is inherited. Else the thread keeps the policy of the calling one, with this
    ///                  priority or nice value.
    SignalDispatcher(char const* thread_name, int const& priority);

    /// Stops the thread if that was not done, and closes the pipe. All catchers must have let go of the queue.
    ~SignalDispatcher();

    /// What catchers push into. Signals that are signed on with it are called back on this dispatcher's thread.
    SignalQueue& getQueue() noexcept { return queue; }

    /// Ends the thread, once: blocks until the callback that is under way has returned and the thread is gone. Occurrences
    /// that are pending are not called back any more; pushing stays allowed.
    void stop();

    /// Whether a callback is running on the dispatcher's thread, or may be about to begin. False in that thread itself.
    bool isCallingBack() const noexcept;

    /// Waits for the end of the callback that is running, if there is one. Not for the dispatcher's own callbacks.
    void waitForCallback() noexcept;

private:
    /// Passes the queue's messages on to the dispatcher and knows when one of them is being carried out.
    class Calls : public Message::Source {
    public:
        explicit Calls(SignalQueue& signal_queue);
        ~Calls() override;

        Message* pop_nonblock() override;

        /// Tells that what was popped last has been carried out.
        void end() noexcept;

        bool isUnderWay() const noexcept { return state != State::NONE; }
        void wait() noexcept;

    private:
        enum class State { NONE, UNDER_WAY, AWAITED };

        SignalQueue& queue;
        std::atomic<State> state{State::NONE};
        threadsafe::MutexImpl mutex; // For the condition alone.
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
