#include <vesk/SignalCatcherImpl.h>

#include "vesk/posix/detail/StaticMutex.h"

#include <vesk/common/CancellationOff.h>

#include <vesk/SignalDispatcher.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/SignalCatcherImpl-posix";

// The interval at which the destructor of a catcher checks whether handlers are still running.
constexpr struct timespec HANDLERS_TIME = {0, 100000};

static_assert(std::atomic<uint32_t>::is_always_lock_free);

void fail(char const* condition, char const* function, int line = __builtin_LINE()) {
    std::GlobalErrorHandler::doAssert(false, condition, SOURCE, line, function, nullptr);
}

// Serializes the installation and removal of catchers. Handlers do not take it.
detail::StaticMutex s_catchers(threadsafe::ConstantInit{TARN_LOCK_NAME(SIGNAL_CATCHERS)});

} // namespace

TARN_CONSTANT_INIT SignalCatcherImpl::Row SignalCatcherImpl::info[TARN_NSIGNALS];

SignalCatcherImpl::SignalCatcherImpl(
    int signal_number, std::SharedBase::Ptr<SignalDispatcher> const& signal_dispatcher,
    SignalQueue& signal_queue, void (*callback)(int, void*), void* data)
    : signal(signal_number), dispatcher(signal_dispatcher) {
    if (signal < 0) {
        fail("0<=signal", "SignalCatcherImpl");
        return;
    }
    if (signal >= TARN_NSIGNALS) {
        fail("signal<TARN_NSIGNALS", "SignalCatcherImpl");
        return;
    }
    // If two catchers of a signal use the same queue, the older one keeps the signal.
    if (signal_queue.sign_on(signal, callback, data)) {
        return;
    }
    queue = &signal_queue;
    install();
    try {
        checkOldAction();
    } catch (...) {
        // A hook may throw, and the destructor does not run for an object that was not fully constructed.
        release();
        throw;
    }
}

/// Installs the handler. A refusal is not reported: such a catcher never fires.
void SignalCatcherImpl::install() {
    detail::StaticLock const lock(s_catchers);
    Row& row = info[signal];
    older = row.newest;
    row.newest = this;
    row.queue.store(queue);
    struct sigaction action {};
    action.sa_handler = enqueue_signal;
    // Also blocks the signal with which the C library cancels a thread, which `sigfillset` leaves out: a handler that
    // is unwound would leave its count and its occurrence behind. A cancellation takes effect after the handler.
    memset(&action.sa_mask, 0xff, sizeof action.sa_mask);
    action.sa_flags = SA_RESTART;
    installed = sigaction(signal, &action, &old_action) == 0;
}

/// Asserts that the signal had no handler. Both forms of a handler share their storage.
void SignalCatcherImpl::checkOldAction() const {
    if (old_action.sa_handler == SIG_DFL || old_action.sa_handler == SIG_IGN) {
        return;
    }
    if ((old_action.sa_flags & SA_SIGINFO) == 0) {
        fail(
            "(old_action.sa_flags & SA_SIGINFO) || old_action.sa_handler==SIG_DFL || "
            "old_action.sa_handler==SIG_IGN",
            "SignalCatcherImpl");
    } else {
        fail(
            "!(old_action.sa_flags & SA_SIGINFO) || "
            "old_action.sa_sigaction==(void (*) (int, siginfo_t *, void *))SIG_DFL || "
            "old_action.sa_sigaction==(void (*) (int, siginfo_t *, void *))SIG_IGN",
            "SignalCatcherImpl");
    }
}

SignalCatcherImpl::~SignalCatcherImpl() {
    release();
}

/// Reverses the construction, in the opposite order.
void SignalCatcherImpl::release() {
    if (queue == nullptr) {
        return;
    }
    if (uninstall()) {
        fail("action.sa_handler==enqueue_signal", "~SignalCatcherImpl");
    }
    waitForHandlers();
    queue->sign_off(signal);
}

/// Restores the previous action of the signal, and assigns the signal to the catcher that had it before.
/// @return whether the signal had a handler of other code
bool SignalCatcherImpl::uninstall() {
    detail::StaticLock const lock(s_catchers);
    Row& row = info[signal];
    if (row.newest == this) {
        bool const was_replaced = putActionBack();
        row.newest = older;
        row.queue.store(older != nullptr ? older->queue : nullptr);
        return was_replaced;
    }
    // The handler and the queue belong to a newer catcher, which must restore the action that this one has
    // found.
    SignalCatcherImpl* newer = row.newest;
    while (newer->older != this) {
        newer = newer->older;
    }
    newer->older = older;
    if (installed && newer->old_action.sa_handler == enqueue_signal) {
        newer->old_action = old_action;
    }
    return false;
}

bool SignalCatcherImpl::putActionBack() const {
    struct sigaction current {};
    return installed && sigaction(signal, &old_action, &current) == 0 && current.sa_handler != enqueue_signal;
}

/// Waits for handlers in other threads that have found the queue and are pushing into it: the queue may be
/// destroyed right after this object.
void SignalCatcherImpl::waitForHandlers() const {
    detail::CancellationOff const cancellation_off;
    while (info[signal].pushing.load() != 0) {
        nanosleep(&HANDLERS_TIME, nullptr);
    }
}

void SignalCatcherImpl::enqueue_signal(int signal_number) {
    // Not guarded by `CancellationOff`: where the signal interrupted a cancellation point, restoring the state would
    // cancel the thread here. Nothing below is a cancellation point.
    if (signal_number < 0) {
        fail("signal>=0", "enqueue_signal");
        return;
    }
    if (signal_number >= TARN_NSIGNALS) {
        fail("signal<TARN_NSIGNALS", "enqueue_signal");
        return;
    }
    Row& row = info[signal_number];
    // Counted before the look-up: the destructor of a catcher first removes the queue and then checks the
    // count.
    row.pushing.fetch_add(1);
    if (SignalQueue* const receiver = row.queue.load()) {
        // The code that the signal interrupted may be about to read errno.
        int const saved_errno = errno;
        receiver->push(signal_number);
        errno = saved_errno;
    }
    row.pushing.fetch_sub(1);
}

} // namespace vesk
