#include <vesk/SignalCatcherImpl.h>

#include "posix/CancellationOff.h"

#include <vesk/SignalDispatcher.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cerrno>
#include <ctime>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/SignalCatcherImpl-posix";

// How often the end of a catcher looks whether handlers are still at work.
constexpr struct timespec HANDLERS_TIME = {0, 100000};

static_assert(std::atomic<uint32_t>::is_always_lock_free);

void fail(char const* condition, char const* function, int line = __builtin_LINE()) {
    std::GlobalErrorHandler::doAssert(false, condition, SOURCE, line, function, nullptr);
}

/// Tells the processor that this is a loop that waits for another one.
void relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    asm volatile("yield");
#endif
}

} // namespace

TARN_CONSTANT_INIT SignalCatcherImpl::Row SignalCatcherImpl::info[TARN_NSIGNALS];

/// Holds the lock of a row for a scope. It cannot deadlock with a handler on the same thread: while a catcher holds the
/// lock, its handler is not installed.
class SignalCatcherImpl::RowLock : private tarnbase::NonCopyable {
public:
    explicit RowLock(Row& row) noexcept : m_row(row) {
        while (m_row.lock.exchange(1, std::memory_order_acquire) != 0) {
            relax();
        }
    }
    ~RowLock() { m_row.lock.store(0, std::memory_order_release); }

private:
    Row& m_row;
};

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
    // Two catchers of one signal on one queue: the signal stays with the older one.
    if (signal_queue.sign_on(signal, callback, data)) {
        return;
    }
    queue = &signal_queue;
    {
        RowLock const lock(info[signal]);
        info[signal].queue = queue;
    }
    install();
    try {
        checkOldAction();
    } catch (...) {
        // A hook may throw. Nobody would ever destroy this object.
        release();
        throw;
    }
}

/// A refusal is not reported: such a catcher never fires.
void SignalCatcherImpl::install() {
    struct sigaction action {};
    action.sa_handler = enqueue_signal;
    sigfillset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    installed = sigaction(signal, &action, &old_action) == 0;
}

/// Both forms of a handler lie in the same place.
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

/// The mirror image of the construction.
void SignalCatcherImpl::release() {
    if (queue == nullptr) {
        return;
    }
    uninstall();
    withdraw();
    queue->sign_off(signal);
}

void SignalCatcherImpl::uninstall() {
    if (!installed) {
        return;
    }
    struct sigaction current {};
    if (sigaction(signal, &old_action, &current) == 0 && current.sa_handler != enqueue_signal) {
        fail("action.sa_handler==enqueue_signal", "~SignalCatcherImpl");
    }
}

/// Takes the queue from the handlers. Those that have it already may be in the middle of their push in other threads,
/// and the queue may be gone as soon as this object is.
void SignalCatcherImpl::withdraw() {
    Row& row = info[signal];
    {
        RowLock const lock(row);
        if (row.queue == queue) {
            row.queue = nullptr;
        }
    }
    detail::CancellationOff const cancellation_off;
    while (row.pushing.load(std::memory_order_acquire) != 0) {
        nanosleep(&HANDLERS_TIME, nullptr);
    }
}

void SignalCatcherImpl::enqueue_signal(int signal_number) {
    // The signal may have interrupted a destructor, out of which a thread must not be unwound.
    detail::CancellationOff const cancellation_off;
    if (signal_number < 0) {
        fail("signal>=0", "enqueue_signal");
        return;
    }
    if (signal_number >= TARN_NSIGNALS) {
        fail("signal<TARN_NSIGNALS", "enqueue_signal");
        return;
    }
    Row& row = info[signal_number];
    SignalQueue* receiver = nullptr;
    {
        RowLock const lock(row);
        receiver = row.queue;
        if (receiver != nullptr) {
            row.pushing.fetch_add(1, std::memory_order_relaxed);
        }
    }
    if (receiver == nullptr) {
        return;
    }
    // The code that the signal interrupted may be about to look at it.
    int const saved_errno = errno;
    receiver->push(signal_number);
    errno = saved_errno;
    row.pushing.fetch_sub(1, std::memory_order_release);
}

} // namespace vesk
