#pragma once

#include <vesk/SignalCatcherImpl.h>

namespace vesk {

/// Catches a signal while it lives, and has it delivered as a plain call on a thread, never inside a signal handler.
///
///     void reload(int signal, void* config) { ... }            // May lock, allocate and block.
///
///     vesk::SignalCatcher const catcher(SIGHUP, reload, &config);
///
/// One signal has one catcher at a time. It does not chain to an older handler: it wants to find the signal at its
/// default or ignored, and anything else goes to `std::GlobalErrorHandler::doAssert`. Blocking signals in threads is none
/// of its business: a signal that every thread blocks stays with the kernel.
///
/// System calls that the handler interrupts are restarted where the system does that at all. Each occurrence that the
/// kernel delivers becomes one call; waiting standard signals of the same number are merged by the kernel, real-time ones
/// are not. Of several signals that wait for their calls the lowest number comes first.
///
/// Catchers may be made and destroyed in any thread, and by callbacks, also while another thread destroys the last one on
/// the shared thread. A callback may be under way, or about to begin, when its catcher's destructor returns, unless the
/// catcher was the last on the shared thread: its destructor waits for the callback. That one must therefore not be
/// destroyed by a callback.
class VESK_API SignalCatcher : public SignalCatcherImpl {
public:
    /// Has `callback` run on the thread "vesk::SignalDispatcher" of the process, which lives as long as there are such
    /// catchers: the first one starts it, and blocks until it is there; the last one ends it. If the thread cannot be
    /// had, the error that `Thread` reports is pending, and nobody is called back.
    ///
    /// @param signal_number  the signal, 0 to 64
    /// @param callback       called with the signal and `data` for each occurrence; not null
    SignalCatcher(int signal_number, void (*callback)(int, void*), void* data);

    /// Has `callback` run wherever the dispatcher of `signal_queue` runs. Starts no thread.
    /// @param signal_queue  must outlive the catcher
    SignalCatcher(int signal_number, SignalQueue& signal_queue, void (*callback)(int, void*), void* data);

private:
    SignalCatcher(
        int signal_number, std::SharedBase::Ptr<SignalDispatcher> const& signal_dispatcher,
        void (*callback)(int, void*), void* data);
};

} // namespace vesk
