#pragma once

#include <vesk/SignalQueueImpl.h>

namespace vesk {

/// The bridge from a signal handler, which may call almost nothing, to the thread of a `Dispatcher`, which
/// may call anything. A handler pushes signal numbers; the thread gets a message for each number and calls
/// back. `SignalCatcher` installs such a handler.
///
///     vesk::SignalQueue::Notifier notifier;
///     vesk::SignalQueue queue(notifier);
///     vesk::Dispatcher dispatcher(notifier);
///     dispatcher.add_source(queue);
///     vesk::SignalCatcher const catcher(SIGHUP, queue, reload, &config);
///     dispatcher.run();                                                   // Calls reload(SIGHUP, &config).
///
/// Each occurrence that is pushed becomes a message of its own; occurrences that the kernel merged before
/// arrive as one. Lower numbers have strict priority over higher ones. The memory is fixed, however much is
/// pushed.
///
/// `push` and `Notifier::signal` may be called from any thread and from signal handlers, the other operations
/// from any thread. An internal lock that fails goes to `std::GlobalErrorHandler::doAbort` with "error
/// locking" or "error unlocking".
class VESK_API SignalQueue : public SignalQueueImpl {
public:
    class Notifier;

    using SignalQueueImpl::SignalQueueImpl;
    ~SignalQueue() override;
};

/// The notifier for a `SignalQueue`.
class VESK_API SignalQueue::Notifier : public SignalQueueImpl::NotifierImpl {
public:
    ~Notifier() override;
};

} // namespace vesk
