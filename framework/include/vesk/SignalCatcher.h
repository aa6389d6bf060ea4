#pragma once

#include <vesk/SignalCatcherImpl.h>

namespace vesk {

/// A handler for a signal, which delivers each occurrence as a plain call on a thread, never inside the
/// signal handler. It catches the signal as long as it exists.
///
///     void reload(int signal, void* config) { ... }            // May lock, allocate and block.
///
///     vesk::SignalCatcher const catcher(SIGHUP, reload, &config);
///
/// A signal has one catcher at a time. The catcher does not chain to an older handler: it expects the
/// signal's action to be the default or to ignore it, and any other action goes to
/// `std::GlobalErrorHandler::doAssert`. It does not change which signals threads block: a signal that every
/// thread blocks stays pending in the kernel.
///
/// System calls that the handler interrupts are restarted where the system supports that. Each occurrence
/// that the kernel delivers becomes one call. The kernel merges pending standard signals of the same number,
/// but not real-time signals. Of several signals that wait for their calls the lowest number comes first.
///
/// Catchers may be created and destroyed in any thread, and by callbacks, also while another thread destroys
/// the last catcher on the shared thread. When the destructor of a catcher returns, its callback may still be
/// running or about to begin. The exception is the last catcher on the shared thread: its destructor waits
/// for the callback, so it must not be destroyed by a callback.
class VESK_API SignalCatcher : public SignalCatcherImpl {
public:
    /// Runs `callback` on the thread "vesk::SignalDispatcher" of the process, which exists while there are
    /// such catchers. The first catcher starts the thread, and blocks until it exists; the last one ends it.
    /// If the thread cannot be created, the error that `Thread` reports is pending, and there are no
    /// callbacks.
    ///
    /// @param signal_number  the signal, 0 to 64
    /// @param callback       called with the signal and `data` for each occurrence; not null
    SignalCatcher(int signal_number, void (*callback)(int, void*), void* data);

    /// Runs `callback` wherever the dispatcher of `signal_queue` runs. Starts no thread.
    /// @param signal_queue  must outlive the catcher
    SignalCatcher(int signal_number, SignalQueue& signal_queue, void (*callback)(int, void*), void* data);

private:
    SignalCatcher(
        int signal_number, std::SharedBase::Ptr<SignalDispatcher> const& signal_dispatcher,
        void (*callback)(int, void*), void* data);
};

} // namespace vesk
