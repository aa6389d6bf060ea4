#pragma once

#include <vesk/Dispatcher.h>
#include <vesk/SignalQueueBase.h>

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <cstdint>

namespace vesk {

/// The counting half of a `SignalQueue`; see there for its purpose. It has one counter for each signal number
/// instead of a list of messages. It works with any notifier on which `signal` may be called where `push` is.
class VESK_API SignalQueuePosixBase : public SignalQueueBase,
                                      public Message::Source,
                                      private tarnbase::NonCopyable {
public:
    /// Creates a queue with no signal signed on.
    /// @param queue_notifier  the notifier of the dispatcher that has this queue as a source; not owned
    explicit SignalQueuePosixBase(Dispatcher::Notifier& queue_notifier);

    /// Does not check what is signed on or pending.
    ~SignalQueuePosixBase() override;

    /// Enables callbacks for the occurrences of a signal from now on. Discards occurrences that were pushed
    /// before.
    ///
    /// A broken precondition goes to `std::GlobalErrorHandler::doAssert`: "signal>=0",
    /// "signal<TARN_NSIGNALS", or "signals[signal].callback==NULL" if the signal is signed on already.
    /// Nothing changes then.
    /// @param number    the signal, 0 to 64
    /// @param function  called with the signal and `argument` for each occurrence; not null
    /// @return true if a precondition was broken and the assertion returned
    [[nodiscard]] bool sign_on(int number, void (*function)(int, void*), void* argument);

    /// Disables callbacks for the occurrences of a signal from now on, and discards those that are pending. A
    /// message that was popped before still makes its call.
    ///
    /// A broken precondition goes to `std::GlobalErrorHandler::doAssert`: "signal>=0",
    /// "signal<TARN_NSIGNALS", or "signals[signal].callback!=NULL" if the signal is not signed on. Nothing
    /// changes then.
    /// @param number  the signal, 0 to 64
    void sign_off(int number);

    /// Adds one occurrence of a signal and signals the notifier, also for a signal that is not signed on. May
    /// be called from any thread and, if the notifier supports it, from signal handlers: takes no lock and
    /// does not allocate. May change `errno`.
    ///
    /// A number out of range goes to `std::GlobalErrorHandler::doAssert` ("signal>=0",
    /// "signal<TARN_NSIGNALS") and is ignored.
    /// @param number  the signal, 0 to 64
    void push(int number);

    /// Returns the next occurrence: the one with the lowest signal number, whatever the order of arrival.
    /// Does not wait for an occurrence; holds the lock while it walks over the table.
    /// @return null if no signal that is signed on has occurred; also if there is no memory for the message,
    ///         which loses that occurrence
    vesk::Message* pop_nonblock() override;

private:
    /// The state of one signal number.
    struct Row {
        void (*callback)(int, void*) = nullptr; // Null if the signal is not signed on.
        void* data = nullptr;
        int32_t pending = 0; // Occurrences not yet popped. Atomic, with full barriers.
    };

    threadsafe::MutexImpl mutex;
    Row signals[TARN_NSIGNALS] TARN_GUARDED_BY(mutex); // Except for the counters.
    Dispatcher::Notifier* notifier;
};

} // namespace vesk
