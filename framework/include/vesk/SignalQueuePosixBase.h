#pragma once

#include <vesk/Dispatcher.h>
#include <vesk/SignalQueueBase.h>

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <cstdint>

namespace vesk {

/// The counting half of a `SignalQueue`, which tells what it is for: one counter for each signal number instead of a list
/// of messages. It works with any notifier whose `signal` may be called where `push` is.
class VESK_API SignalQueuePosixBase : public SignalQueueBase,
                                      public Message::Source,
                                      private tarnbase::NonCopyable {
public:
    /// All rows are free.
    /// @param queue_notifier  that of the dispatcher which has this queue as a source; not owned
    explicit SignalQueuePosixBase(Dispatcher::Notifier& queue_notifier);

    /// Does not look at what is signed on or pending.
    ~SignalQueuePosixBase() override;

    /// Has the occurrences of a signal called back from now on. What was pushed before is forgotten.
    ///
    /// A broken precondition goes to `std::GlobalErrorHandler::doAssert`: "signal>=0", "signal<TARN_NSIGNALS", or
    /// "signals[signal].callback==NULL" if the signal is signed on already. Nothing has changed then.
    /// @param number    the signal, 0 to 64
    /// @param function  called with the signal and `argument` for each occurrence; not null
    /// @return true if a precondition was broken and the assertion returned
    bool sign_on(int number, void (*function)(int, void*), void* argument);

    /// Has the occurrences of a signal ignored from now on; those that are pending are forgotten. A message that was
    /// popped before still makes its call.
    ///
    /// A broken precondition goes to `std::GlobalErrorHandler::doAssert`: "signal>=0", "signal<TARN_NSIGNALS", or
    /// "signals[signal].callback!=NULL" if the signal is not signed on. Nothing has changed then.
    /// @param number  the signal, 0 to 64
    void sign_off(int number);

    /// Adds one occurrence of a signal and signals the notifier, also for a signal that is not signed on. Callable from
    /// any thread and, if the notifier is, from signal handlers: takes no lock and does not allocate. May change `errno`.
    ///
    /// A number out of range goes to `std::GlobalErrorHandler::doAssert` ("signal>=0", "signal<TARN_NSIGNALS") and is
    /// ignored.
    /// @param number  the signal, 0 to 64
    void push(int number);

    /// The next occurrence: that of the lowest signal number, whatever the order of arrival. Does not block; takes the
    /// lock for a walk over the table.
    /// @return null if nothing that is signed on has occurred; also if there is no memory for the message, which loses
    ///         that occurrence
    vesk::Message* pop_nonblock() override;

private:
    /// One signal number.
    struct Row {
        void (*callback)(int, void*) = nullptr; // Null if the signal is not signed on.
        void* data = nullptr;
        int32_t pending = 0; // Occurrences that were not popped. Atomic, with full barriers.
    };

    threadsafe::MutexImpl mutex; // Guards callbacks and data, and the walk of pop_nonblock.
    Row signals[TARN_NSIGNALS];
    Dispatcher::Notifier* notifier;
};

} // namespace vesk
