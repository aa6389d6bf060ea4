#include <vesk/SignalQueuePosixBase.h>

#include <vesk/common/AbortingLock.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <csignal>
#include <new>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/SignalQueuePosixBase";

static_assert(TARN_NSIGNALS == _NSIG);

using InternalLock = AbortingLock<threadsafe::MutexImpl>;

void fail(char const* condition, char const* function, int line = __builtin_LINE()) {
    std::GlobalErrorHandler::doAssert(false, condition, SOURCE, line, function, nullptr);
}

/// Returns whether the signal number is valid; asserts if it is not.
bool isSignal(int number, char const* function) {
    if (number < 0) {
        fail("signal>=0", function);
        return false;
    }
    if (number >= TARN_NSIGNALS) {
        fail("signal<TARN_NSIGNALS", function);
        return false;
    }
    return true;
}

void clear(int32_t& counter) noexcept {
    __sync_fetch_and_and(&counter, 0);
}

} // namespace

SignalQueuePosixBase::SignalQueuePosixBase(Dispatcher::Notifier& queue_notifier)
    : mutex(false), notifier(&queue_notifier) {
    TARN_NAME_LOCK(mutex, SIGNAL_QUEUE);
}

SignalQueuePosixBase::~SignalQueuePosixBase() = default;

bool SignalQueuePosixBase::sign_on(int number, void (*function)(int, void*), void* argument) {
    if (!isSignal(number, "sign_on")) {
        return true;
    }
    InternalLock const lock(mutex, SOURCE, "sign_on");
    Row& row = signals[number];
    if (row.callback != nullptr) {
        fail("signals[signal].callback==NULL", "sign_on");
        return true;
    }
    clear(row.pending);
    row.data = argument;
    row.callback = function;
    return false;
}

void SignalQueuePosixBase::sign_off(int number) {
    if (!isSignal(number, "sign_off")) {
        return;
    }
    InternalLock const lock(mutex, SOURCE, "sign_off");
    Row& row = signals[number];
    if (row.callback == nullptr) {
        fail("signals[signal].callback!=NULL", "sign_off");
        return;
    }
    row.callback = nullptr;
    row.data = nullptr;
    clear(row.pending);
}

/// Not analyzed: the counter needs no lock, which a signal handler must not take.
void SignalQueuePosixBase::push(int number) TARN_NOT_ANALYZED {
    if (!isSignal(number, "push")) {
        return;
    }
    __sync_fetch_and_add(&signals[number].pending, 1);
    notifier->signal();
}

vesk::Message* SignalQueuePosixBase::pop_nonblock() {
    InternalLock const lock(mutex, SOURCE, "pop_nonblock");
    for (int number = 0; number < TARN_NSIGNALS; ++number) {
        Row& row = signals[number];
        if (row.callback == nullptr) {
            continue;
        }
        // Decremented first, and restored if the count was zero: a push in between is counted either way.
        if (__sync_fetch_and_sub(&row.pending, 1) != 0) {
            // Without memory the occurrence is lost: there is no way to report it, and a retry would delay
            // the others.
            return new (std::nothrow) Message(number, row.callback, row.data);
        }
        __sync_fetch_and_add(&row.pending, 1);
    }
    return nullptr;
}

} // namespace vesk
