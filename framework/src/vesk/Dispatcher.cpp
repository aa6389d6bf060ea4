#include <vesk/Dispatcher.h>

#include <vesk/common/AbortingLock.h>

#include <algorithm>
#include <typeinfo>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/Dispatcher";

using InternalLock = AbortingLock<Mutex const>;

/// How often `VanillaNotifier::wait` looks for a signal before it sleeps.
constexpr int LOOKS = 4;

/// The largest number of waits that sleep without a look.
constexpr unsigned int MOST_UNTRIED = 63;

/// Passes one or a few microseconds without giving up the processor.
void pauseBriefly() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    for (int i = 0; i < 128; ++i) {
        __builtin_ia32_pause();
    }
#else
    for (int i = 0; i < 1024; ++i) {
        // Keeps the loop, which the compiler may otherwise remove.
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
#endif
}

} // namespace

void Dispatcher::add_source(Message::Source& source) {
    sources.push_back(&source);
}

void Dispatcher::add_handler(Message::Handler& handler) {
    InternalLock const lock(mutex, SOURCE, "add_handler");
    handlers.push_back(&handler);
    has_handlers.store(1, std::memory_order_relaxed);
}

void Dispatcher::remove_handler(Message::Handler& handler) {
    InternalLock const lock(mutex, SOURCE, "remove_handler");
    handlers.remove(&handler);
    has_handlers.store(handlers.empty() ? 0 : 1, std::memory_order_relaxed);
}

void Dispatcher::run() {
    while (isRunning()) {
        // One message at a time: the search for the next message begins with the first source again.
        if (Message* const message = pop()) {
            dispatch(message);
        } else {
            notifier->wait();
        }
    }
    running.store(true, std::memory_order_relaxed);
}

Message* Dispatcher::pop() {
    for (Message::Source* const source : sources) {
        if (Message* const message = source->pop_nonblock()) {
            return message;
        }
    }
    return nullptr;
}

void Dispatcher::stop() {
    running.store(false, std::memory_order_relaxed);
    notifier->signal();
}

void Dispatcher::dispatch(Message* message) {
    // Relaxed: only the lock makes the list visible. A handler that is added at the same time may miss the
    // message, as if it had been added after it.
    if (has_handlers.load(std::memory_order_relaxed) != 0) {
        show(message);
    }
    message->invoke();
    message->dismiss();
}

void Dispatcher::show(Message* message) {
    InternalLock const lock(mutex, SOURCE, "dispatch");
    for (auto next = handlers.begin(); next != handlers.end();) {
        // Advance before the call: if the process survives a fatal error in it, the handler may be gone.
        Message::Handler* const handler = *next++;
        message->get_handled_by(handler);
    }
}

void Dispatcher::main(void* dispatcher) {
    static_cast<Dispatcher*>(dispatcher)->run();
}

Message* detail::MessageBatch::take() noexcept {
    // Acquire: makes visible what `fill` stored, and what the producers did before they pushed.
    Cursor cursor = m_cursor.load(std::memory_order_acquire);
    while ((cursor & INDEX) != 0) {
        Message* const message = m_messages[(cursor & INDEX) - 1].load(std::memory_order_relaxed);
        // Succeeds only if no other thread took a message since the load above: each value of the cursor occurs once.
        // Release: the load of the message precedes the store, so `fill` cannot replace it before.
        if (m_cursor.compare_exchange_weak(
                cursor, cursor - 1, std::memory_order_acq_rel, std::memory_order_acquire)) {
            return message;
        }
    }
    return nullptr;
}

void detail::MessageBatch::fill(std::deque<Message*>& backlog) noexcept {
    // Acquire: pairs with the release of the threads that took the last messages.
    Cursor const cursor = m_cursor.load(std::memory_order_acquire);
    size_t const count = std::min(backlog.size(), CAPACITY);
    for (size_t i = count; i > 0; --i) {
        m_messages[i - 1].store(backlog.front(), std::memory_order_relaxed);
        backlog.pop_front();
    }
    m_cursor.store(cursor + GENERATION + count, std::memory_order_release);
}

Dispatcher::VanillaQueue::~VanillaQueue() = default;

Message* Dispatcher::VanillaQueue::pop_nonblock() {
    Message* const message = batch.take();
    return message != nullptr ? message : popUnderLock();
}

Message* Dispatcher::VanillaQueue::popUnderLock() {
    InternalLock const lock(mutex, SOURCE, "pop_nonblock");
    // Another thread may have filled the batch before this one had the lock.
    if (Message* const message = batch.take()) {
        return message; // LCOV_EXCL_LINE: only if both threads meet here
    }
    if (messages.empty()) {
        return nullptr;
    }
    Message* const message = messages.front();
    messages.pop_front();
    if (!messages.empty()) {
        batch.fill(messages);
    }
    return message;
}

void Dispatcher::VanillaQueue::push(Message* message) {
    {
        InternalLock const lock(mutex, SOURCE, "push");
        messages.push_back(message);
    }
    // The usual notifier needs less from a caller that has held the lock without which no thread finds the queue empty.
    if (typeid(*notifier) == typeid(VanillaNotifier)) {
        static_cast<VanillaNotifier*>(notifier)->signalAfterLock();
    } else {
        notifier->signal();
    }
}

Dispatcher::VanillaNotifier::~VanillaNotifier() = default;

void Dispatcher::VanillaNotifier::wait() {
    lookForSignal();
    InternalLock const lock(mutex, SOURCE, "wait");
    while (state.load(std::memory_order_relaxed) == NONE) {
        // A wait that fails is reported, but does not count as a signal.
        static_cast<void>(condition.wait(mutex));
    }
    // Acquire: makes visible what precedes each `signal` that this wait takes, also those without the mutex.
    state.exchange(NONE, std::memory_order_acq_rel);
}

/// Looks for a signal for a few microseconds. If one comes, its sender saves the system call that wakes a thread. The
/// looks are not closer together, because a thread that takes each message alone, as soon as it is pushed, contends with
/// the producers for every one of them. After a vain attempt the next waits sleep at once: one at first, up to
/// `MOST_UNTRIED`, so that rare signals, or a producer that needs this processor, cost next to nothing.
void Dispatcher::VanillaNotifier::lookForSignal() noexcept {
    // Relaxed, and not as one operation: concurrent waiters may disturb each other's counts, which decide nothing else.
    if (unsigned int const untried = untried_waits.load(std::memory_order_relaxed)) {
        untried_waits.store(static_cast<unsigned char>(untried - 1), std::memory_order_relaxed);
        return;
    }
    for (int i = 0; i < LOOKS; ++i) {
        if (state.load(std::memory_order_relaxed) != NONE) {
            vain_looks.store(0, std::memory_order_relaxed);
            return;
        }
        pauseBriefly();
    }
    unsigned int const next = std::min(2U * vain_looks.load(std::memory_order_relaxed) + 1, MOST_UNTRIED);
    vain_looks.store(static_cast<unsigned char>(next), std::memory_order_relaxed);
    untried_waits.store(static_cast<unsigned char>(next), std::memory_order_relaxed);
}

/// Signals after the caller has filled a source under a lock, and only that lock shows a thread that the source is
/// empty. A load is then enough to find out that a wake-up is pending: if the waiter takes that wake-up before it is
/// loaded here, and misses what the caller has stored, it had the lock first, and the load finds the wake-up taken.
void Dispatcher::VanillaNotifier::signalAfterLock() {
    if (state.load(std::memory_order_relaxed) != WOKEN) {
        wake();
    }
}

void Dispatcher::VanillaNotifier::signal() {
    // While the previous signal is pending, the waiter that it woke takes this one as well. An exchange, although
    // the value stays: `wait` then reads this value, and sees what precedes this call. A load could be carried
    // out before a preceding store.
    unsigned char expected = WOKEN;
    if (state.compare_exchange_strong(
            expected, WOKEN, std::memory_order_acq_rel, std::memory_order_relaxed)) {
        return;
    }
    wake();
}

void Dispatcher::VanillaNotifier::wake() {
    InternalLock const lock(mutex, SOURCE, "signal");
    if (state.load(std::memory_order_relaxed) != WOKEN) {
        state.store(condition.signal() ? PENDING : WOKEN, std::memory_order_release);
    }
}

} // namespace vesk
