#include <vesk/SignalDispatcher.h>

#include <vesk/common/CancellationOff.h>

#include <vesk/common/AbortingLock.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/SignalDispatcher";

using InternalLock = AbortingLock<threadsafe::MutexImpl>;

/// The dispatcher that runs in this thread.
TARN_CONSTANT_INIT thread_local SignalDispatcher const* t_dispatcher = nullptr;

} // namespace

TARN_CONSTANT_INIT std::Shared<SignalDispatcher> SignalDispatcher::DEFAULT;

SignalDispatcher::SignalDispatcher()
    : SignalDispatcher("vesk::SignalDispatcher", Thread::getMainSchedAttrs()) {}

SignalDispatcher::SignalDispatcher(char const* thread_name, sched::Attr const& attributes)
    : queue(notifier),
      calls(queue),
      dispatcher(notifier),
      thread(main, this, thread_name, attributes, false) {
    start();
}

SignalDispatcher::SignalDispatcher(char const* thread_name, int const& priority)
    : queue(notifier),
      calls(queue),
      dispatcher(notifier),
      thread(main, this, thread_name, priority != 0, priority, 0, false) {
    start();
}

/// Starts the thread. The source is added before: the thread exists already, but uses the sources only after
/// its start.
void SignalDispatcher::start() {
    dispatcher.add_source(calls);
    static_cast<void>(thread.start());
}

void SignalDispatcher::main(void* signal_dispatcher) {
    auto& self = *static_cast<SignalDispatcher*>(signal_dispatcher);
    t_dispatcher = &self;
    self.dispatcher.run();
    self.calls.end();
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
        // The destructor of the last catcher leads here, and must not be unwound.
        detail::CancellationOff const cancellation_off;
        static_cast<void>(thread.join());
    }
}

bool SignalDispatcher::isCallingBack() const noexcept {
    return calls.isUnderWay() && t_dispatcher != this;
}

void SignalDispatcher::waitForCallback() noexcept {
    calls.wait();
}

SignalDispatcher::Calls::Calls(SignalQueue& signal_queue) : queue(signal_queue), mutex(false), ended(mutex) {
    TARN_NAME_LOCK(mutex, SIGNAL_CALLS);
}

SignalDispatcher::Calls::~Calls() = default;

/// Sets the state before it searches the queue, so that a signal that is signed off while no call is under
/// way is neither found nor called.
Message* SignalDispatcher::Calls::pop_nonblock() {
    end();
    state = State::UNDER_WAY;
    Message* const message = queue.pop_nonblock();
    if (message == nullptr) {
        end();
    }
    return message;
}

void SignalDispatcher::Calls::end() noexcept {
    if (state.exchange(State::NONE) == State::AWAITED) {
        InternalLock const lock(mutex, SOURCE, "end");
        static_cast<void>(ended.signal_one());
    }
}

/// Returns at the end of a call or earlier: the caller must check whether another call has begun.
void SignalDispatcher::Calls::wait() noexcept {
    detail::CancellationOff const cancellation_off;
    InternalLock const lock(mutex, SOURCE, "wait");
    State expected = State::UNDER_WAY;
    state.compare_exchange_strong(expected, State::AWAITED);
    if (state == State::AWAITED) {
        static_cast<void>(ended.wait());
        static_cast<void>(ended.signal_one()); // Wakes the next thread that waits for the same call.
    }
}

} // namespace vesk
