#include <vesk/SignalCatcher.h>

#include <vesk/SignalDispatcher.h>

namespace vesk {

using Reference = std::SharedBase::Ptr<SignalDispatcher>;

SignalCatcher::SignalCatcher(int signal_number, void (*callback)(int, void*), void* data)
    : SignalCatcher(signal_number, Reference(SignalDispatcher::DEFAULT), callback, data) {}

/// Takes the reference first: the dispatcher and its queue exist only from then on.
SignalCatcher::SignalCatcher(
    int signal_number, Reference const& signal_dispatcher, void (*callback)(int, void*), void* data)
    : SignalCatcherImpl(signal_number, signal_dispatcher, signal_dispatcher->getQueue(), callback, data) {}

SignalCatcher::SignalCatcher(
    int signal_number, SignalQueue& signal_queue, void (*callback)(int, void*), void* data)
    : SignalCatcherImpl(signal_number, Reference(), signal_queue, callback, data) {}

} // namespace vesk
