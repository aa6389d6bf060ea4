#include <vesk/SignalCatcherImpl.h>

#include <vesk/common/CancellationOff.h>

#include <vesk/SignalDispatcher.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cerrno>
#include <ctime>
#include <pthread.h>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/SignalCatcherImpl-posix";

// How often the end of a catcher looks whether handlers are still at work.
constexpr struct timespec HANDLERS_TIME = {0, 100000};

static_assert(std::atomic<uint32_t>::is_always_lock_free);

void fail(char const* condition, char const* function, int line = __builtin_LINE()) {
    std::GlobalErrorHandler::doAssert(false, condition, SOURCE, line, function, nullptr);
}

/// Orders the catchers of a process that come and go. Handlers do not take it.
class [[nodiscard]] CatchersLock : private tarnbase::NonCopyable {
public:
    CatchersLock() noexcept { pthread_mutex_lock(&s_mutex); }
    ~CatchersLock() { pthread_mutex_unlock(&s_mutex); }

private:
    static inline pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
};

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
    // Two catchers of one signal on one queue: the signal stays with the older one.
    if (signal_queue.sign_on(signal, callback, data)) {
        return;
    }
    queue = &signal_queue;
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
    CatchersLock const lock;
    Row& row = info[signal];
    older = row.newest;
    row.newest = this;
    row.queue.store(queue);
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
    if (uninstall()) {
        fail("action.sa_handler==enqueue_signal", "~SignalCatcherImpl");
    }
    waitForHandlers();
    queue->sign_off(signal);
}

/// Takes the signal from the handlers, and gives it to the catcher that had it before.
/// @return whether there was a handler of somebody else
bool SignalCatcherImpl::uninstall() {
    CatchersLock const lock;
    Row& row = info[signal];
    if (row.newest == this) {
        bool const was_replaced = putActionBack();
        row.newest = older;
        row.queue.store(older != nullptr ? older->queue : nullptr);
        return was_replaced;
    }
    // Both the handler and the queue are those of a newer one, which puts back what this one has found.
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

/// Handlers that have found the queue may be in the middle of their push in other threads, and the queue may be gone as
/// soon as this object is.
void SignalCatcherImpl::waitForHandlers() const {
    detail::CancellationOff const cancellation_off;
    while (info[signal].pushing.load() != 0) {
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
    // Counted before it looks: the end of a catcher takes the queue away and looks at the count then.
    row.pushing.fetch_add(1);
    if (SignalQueue* const receiver = row.queue.load()) {
        // The code that the signal interrupted may be about to look at it.
        int const saved_errno = errno;
        receiver->push(signal_number);
        errno = saved_errno;
    }
    row.pushing.fetch_sub(1);
}

} // namespace vesk
