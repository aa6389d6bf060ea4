#include <vesk/SignalDispatcher.h>

#include "posix/CancellationOff.h"

namespace vesk {

TARN_CONSTANT_INIT std::Shared<SignalDispatcher> SignalDispatcher::DEFAULT;

SignalDispatcher::SignalDispatcher()
    : SignalDispatcher("vesk::SignalDispatcher", Thread::getMainSchedAttrs()) {}

SignalDispatcher::SignalDispatcher(char const* thread_name, sched::Attr const& attributes)
    : queue(notifier),
      dispatcher(notifier),
      thread(Dispatcher::main, &dispatcher, thread_name, attributes, false) {
    start();
}

SignalDispatcher::SignalDispatcher(char const* thread_name, int const& priority)
    : queue(notifier),
      dispatcher(notifier),
      thread(Dispatcher::main, &dispatcher, thread_name, priority != 0, priority, 0, false) {
    start();
}

/// The thread exists by now, but looks at the sources only once it is started.
void SignalDispatcher::start() {
    dispatcher.add_source(queue);
    thread.start();
}

SignalDispatcher::~SignalDispatcher() {
    stop();
}

void SignalDispatcher::stop() {
    if (stopped) {
        return;
    }
    stopped = true;
    dispatcher.stop();
    if (thread.isValid()) {
        // The last catcher ends in here, from a destructor.
        detail::CancellationOff const cancellation_off;
        thread.join();
    }
}

} // namespace vesk
