#include <vesk/Thread.h>

#include "ThreadLink.h"
#include "ThreadSched.h"
#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/Insist.h"
#include "vesk/posix/detail/ScopeExit.h"
#include "vesk/posix/detail/SystemErrorText.h"
#include "vesk/posix/detail/WallDeadline.h"
#include <vesk/common/CancellationOff.h>
#include <vesk/common/Unwindable.h>

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/tracing/Channel.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vesk {

using namespace detail;
using std::GlobalErrorHandler;

namespace {

constexpr char const* SOURCE = THREAD_SOURCE;
constexpr char const* DESTRUCTOR = "~Thread";

// The system limits names to this number of bytes.
constexpr size_t NAME_LENGTH = 15;

constexpr std::ErrorID ROWS[] = {
    {0, "Thread creation failed: %s", 1},
    {1, "Thread start failed: %s", 1},
    {2, "getting/setting Thread priority/scheduling parameters failed: %s", 1},
    {3, "Thread yield failed: %s", 1},
    {4, "Thread join failed: %s", 1},
    {5, "Thread terminate failed: %s", 1},
    // suspend reports SUSPEND_FAILED and wakeup WAKEUP_FAILED, which have no row: their texts are those of an
    // unknown error.
};

constexpr ErrnoRow ATTRIBUTE_INIT_ERRORS[] = {
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, Thread::ErrorId::CREATE_FAILED},
    {OTHERS, SysErrorId::UNCLASSIFIED, Thread::ErrorId::CREATE_FAILED},
};

constexpr ErrnoRow DETACHED_STATE_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED, Thread::ErrorId::CREATE_FAILED},
};

constexpr ErrnoRow CREATE_ERRORS[] = {
    {{EPERM}, SysErrorId::PERMISSION_DENIED, Thread::ErrorId::CREATE_FAILED},
    {{EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED, Thread::ErrorId::CREATE_FAILED},
    {OTHERS, SysErrorId::UNCLASSIFIED, Thread::ErrorId::CREATE_FAILED},
};

tracing::Channel s_channel("FW_Vesk_Thread", 7, tracing::Channel::WITH_THREAD);

/// The link of a thread that runs in the wrapper, null in all other threads. A thread queries its own state
/// here, since its object may be destroyed.
TARN_CONSTANT_INIT thread_local ThreadLink* t_link = nullptr;

/// Holds the thread's side of the link, and releases it at the end of a scope, also when the stack is
/// unwound.
class LinkGuard {
public:
    explicit LinkGuard(ThreadLink& link) noexcept { t_link = &link; }
    ~LinkGuard() {
        t_link->leaveThread();
        t_link = nullptr;
    }
};

bool reportFailure(Place place, Chain chain, Thread::ErrorId id) {
    report(place, chain, id, SystemErrorText().get());
    return true;
}

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Thread::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT Thread::ThreadId Thread::s_main_thread_id;
TARN_CONSTANT_INIT std::atomic<Thread::ExitHandler> Thread::s_main_exit_handlers[EXIT_HANDLERS] = {};
TARN_CONSTANT_INIT TLS::Key Thread::s_tls_ctrl_object(threadsafe::CONSTANT_INIT);

// ---- creation ----

Thread::Thread(Fields, Function function, void* argument, bool detached)
    : m_function(function),
      m_argument(argument),
      m_detached_mode(detached),
      m_link(ThreadLink::make()),
      m_shared(m_link) {}

Thread::Thread(Function function, void* argument) : Thread(function, argument, nullptr) {}

Thread::Thread(Function function, void* argument, char const* name)
    : Thread(function, argument, name, sched::Attr(), false) {}

Thread::Thread(
    Function function, void* argument, char const* name, sched::Attr const& attributes, bool detached)
    : Thread(Fields(), function, argument, detached) {
    m_valid = !initialize(argument, name, 0, attributes);
}

Thread::Thread(
    Function function, void* argument, char const* name, bool use_priority, int priority,
    unsigned int stack_size, bool detached)
    : Thread(Fields(), function, argument, detached) {
    sched::Attr attributes;
    if (use_priority) {
        sched::Attr caller;
        if (getCallerSchedAttrs(caller)) {
            std::ErrorStorage::ack();
        }
        switch (caller.policy) {
        case sched::VESK_SCHED_POLICY_RR:
        case sched::VESK_SCHED_POLICY_FIFO:
            attributes.policy = sched::VESK_SCHED_POLICY_KEEP;
            attributes.param.priority = priority;
            break;
        case sched::VESK_SCHED_POLICY_NORMAL:
            attributes.policy = sched::VESK_SCHED_POLICY_KEEP;
            attributes.param.nice = priority;
            break;
        default:
            // A thread without the requested priority also gets no name, on purpose: it differs from the
            // thread that was requested.
            name = nullptr;
            stack_size = 0;
            break;
        }
    }
    m_valid = !initialize(argument, name, stack_size, attributes);
}

/// Returns true on failure. The stack size has no effect: every thread has the system's default stack.
bool Thread::initialize(void* argument, char const* name, unsigned int, sched::Attr const& attributes) {
    m_argument = argument;
    m_attributes = attributes;
    if (!create(name)) {
        return false;
    }
    setState(DEAD);
    free(m_name);
    m_name = nullptr;
    m_link.leaveThread();
    return true;
}

bool Thread::create(char const* name) {
    pthread_attr_t attributes;
    if (int const error = pthread_attr_init(&attributes)) {
        classify(SOURCE, ATTRIBUTE_INIT_ERRORS, error, "attribute init failed");
        return true;
    }
    ScopeExit const destroy([&attributes] { pthread_attr_destroy(&attributes); });
    static_assert(PTHREAD_CREATE_JOINABLE == 0 && PTHREAD_CREATE_DETACHED == 1);
    if (int const error = pthread_attr_setdetachstate(&attributes, m_detached_mode)) {
        classify(SOURCE, DETACHED_STATE_ERRORS, error, "Error setting detached state");
        return true;
    }
    if (applySchedAttrs(attributes, m_attributes)) {
        return true;
    }
    if (name != nullptr) {
        m_name = strdup(name);
    }
    setState(CREATED);
    int error = pthread_create(&m_handle, &attributes, threadWrapper, this);
    if (error == EINVAL || error == EPERM) {
        // A process without the permission for the requested scheduling still gets its thread.
        pthread_attr_setinheritsched(&attributes, PTHREAD_INHERIT_SCHED);
        error = pthread_create(&m_handle, &attributes, threadWrapper, this);
    }
    if (error != 0) {
        classify(SOURCE, CREATE_ERRORS, error, "thread creation failed", Chain::UNKNOWN);
        return true;
    }
    return false;
}

// ---- the thread itself ----

/// The entry function of every thread. It ends by returning, which is equivalent to pthread_exit(NULL).
///
/// Access to the object: up to takeOver the object waits for the thread, whatever its state when it is
/// destroyed. While the body runs, the wrapper does not use the object. After the body the wrapper of a
/// joinable thread uses it if the link permits (see ThreadLink), that of a detached thread never.
///
/// The thread can be cancelled in its body only. Otherwise start-up would be left incomplete, and a
/// destructor could wait for takeOver in vain.
void* Thread::threadWrapper(void* this_thread) {
    if (this_thread == nullptr) {
        GlobalErrorHandler::doAssert(false, "p_arg", SOURCE, __LINE__, "threadWrapper", nullptr);
        return nullptr;
    }
    CancellationOff const cancellation_off;
    std::ErrorStorage const errors(std::ErrorStorage::action_dump_to_stdout);
    Thread& thread = *static_cast<Thread*>(this_thread);
    ThreadLink& link = thread.m_link;
    LinkGuard const guard(link);

    thread.m_tid.store(static_cast<int32_t>(syscall(SYS_gettid)), std::memory_order_relaxed);
    thread.applyNice();
    if (thread.m_name != nullptr) {
        size_t const length = strlen(thread.m_name);
        // The tail, where long names differ.
        pthread_setname_np(
            pthread_self(), length > NAME_LENGTH ? thread.m_name + length - NAME_LENGTH : thread.m_name);
    }
    Function const function = thread.m_function;
    void* const argument = thread.m_argument;
    bool const detached = thread.m_detached_mode;
    s_tls_ctrl_object.set(&thread);
    if (!thread.takeOver()) {
        return nullptr;
    }

    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    function(argument);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);

    if (!detached && link.claimEnd()) {
        thread.finish();
    }
    return nullptr;
}

/// Sets the nice value, the only priority of time sharing. It belongs to the kernel's thread, so only that
/// can be addressed.
void Thread::applyNice() {
    if (m_attributes.policy != sched::VESK_SCHED_POLICY_NORMAL) {
        return;
    }
    pid_t const tid = getTid();
    int const wanted = m_attributes.param.nice;
    int const error = setNice(tid, wanted);
    if (error == 0 || s_channel.m_threshold.load(std::memory_order_relaxed) > 2) {
        return;
    }
    char number[32];
    snprintf(number, sizeof number, "thread-tid-%d", tid);
    s_channel.logCV(
        2, "Thread::threadWrapper (%s): can't set nice value %d (%s) falling back to %d",
        m_name != nullptr ? m_name : number, wanted, SystemErrorText(error).get(),
        getpriority(PRIO_PROCESS, static_cast<id_t>(tid)));
}

/// Waits for the start, and ends the use of the object by the start-up. Returns true if the body must run.
bool Thread::takeOver() {
    insistOnLock(SOURCE, m_shared.mutex, "threadWrapper", "error getting state lock");
    while (getState() == CREATED) {
        if (m_shared.condition.wait(m_shared.mutex)) {
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, "threadWrapper", "error waiting on condition");
        }
    }
    // The object was destroyed before the start, or the thread was terminated before it arrived here.
    bool const ended = getState() == FINISHED || getState() == DEAD;
    m_shared.taken_over = true;
    if (m_detached_mode || getState() == DEAD) {
        insist(SOURCE, "threadWrapper", "wait failed", [this] { return m_shared.condition.signal(); });
    }
    unlockAgainOrAbort(SOURCE, m_shared.mutex, "threadWrapper");
    return !ended;
}

/// Ends a joinable thread after its body has returned.
void Thread::finish() {
    callExitHandlers(getCallerThreadId(), EXIT_NORMAL);
    insistOnLock(SOURCE, m_shared.mutex, "threadWrapper");
    setState(FINISHED);
    unlockAgainOrAbort(SOURCE, m_shared.mutex, "threadWrapper");
}

// ---- life cycle ----

bool Thread::start() {
    MutexLock lock(m_shared.mutex);
    if (!lock.isLocked()) {
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::START_FAILED);
    }
    if (getState() != CREATED) {
        static_cast<void>(lock.unlock());
        report(
            SOURCE, Chain::UNKNOWN, std::CommonErrorId::CONTRACT_BROKEN, "start() called in invalid state");
        return true;
    }
    // The state is set after the signal, so that a failure leaves it unchanged. Under the lock the order is
    // not visible.
    if (m_shared.condition.signal()) {
        SystemErrorText const text;
        static_cast<void>(lock.unlock());
        report(SOURCE, Chain::ON_TOP, ErrorId::START_FAILED, text.get());
        return true;
    }
    setState(RUNNING);
    if (lock.unlock()) {
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::START_FAILED);
    }
    return false;
}

/// Cleans up after a join without success: a failure, a timeout or a cancellation. If the thread was
/// terminated meanwhile, `terminate` has left it to the join, which detaches it here.
class Thread::Joining {
public:
    explicit Joining(Thread& thread) noexcept : m_thread(thread) {}
    ~Joining() {
        if (m_joined) {
            return;
        }
        AbortingLock<Mutex const> const lock(m_thread.m_shared.mutex, SOURCE, "join");
        m_thread.m_joining.store(false, std::memory_order_relaxed);
        if (m_thread.getState() == DEAD) {
            pthread_detach(m_thread.m_handle);
        }
    }
    void setJoined() noexcept { m_joined = true; }

private:
    Thread& m_thread;
    bool m_joined = false;
};

/// Returns true if the thread cannot be joined. From here until the join is over `terminate` does not detach
/// the thread, which would invalidate its handle during the system's join.
bool Thread::prepareJoin() {
    if (m_detached_mode) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "Attempt to join detached thread");
        return true;
    }
    MutexLock lock(m_shared.mutex);
    if (!lock.isLocked()) {
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::JOIN_FAILED);
    }
    if (getState() == CREATED || getState() == DEAD || getThreadId() == getCallerThreadId()) {
        static_cast<void>(lock.unlock());
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "Invalid state for join, or tried to join the own thread");
        return true;
    }
    m_joining.store(true, std::memory_order_relaxed);
    if (lock.unlock()) {
        m_joining.store(false, std::memory_order_relaxed);
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::JOIN_FAILED);
    }
    return false;
}

bool Thread::markJoined() {
    MutexLock lock(m_shared.mutex);
    // The thread is joined even if the lock fails: another join must not reach the system.
    setState(DEAD);
    if (!lock.isLocked() || lock.unlock()) {
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::JOIN_FAILED);
    }
    return false;
}

bool Thread::join() {
    if (prepareJoin()) {
        return true;
    }
    Joining joining(*this);
    if (int const error = unwindable([this] { return pthread_join(m_handle, nullptr); })) {
        errno = error;
        return reportFailure(SOURCE, Chain::NEW, ErrorId::JOIN_FAILED);
    }
    joining.setJoined();
    return markJoined();
}

signed char Thread::joinTimeout(long long const& ms) {
    if (prepareJoin()) {
        return -1;
    }
    Joining joining(*this);
    WallDeadline const deadline(ms);
    int const result = deadline.isValid()
        ? unwindable([&] { return pthread_timedjoin_np(m_handle, nullptr, deadline.get()); })
        : -1;
    if (result == 0) {
        joining.setJoined();
        return markJoined() ? -1 : 0;
    }
    if (result == ETIMEDOUT) {
        return 1;
    }
    if (result != -1) {
        errno = result;
    }
    reportFailure(SOURCE, Chain::NEW, ErrorId::JOIN_FAILED);
    return -1;
}

bool Thread::suspend(long long ms) {
    // Checked without access to the object: a terminated or detached thread may call this when the object is
    // destroyed.
    if (t_link == nullptr || s_tls_ctrl_object.get() != this) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "suspend() called by non-associated thread");
        return true;
    }
    return suspendCaller(*t_link, ms);
}

bool Thread::isSuspended(Shared const& shared) noexcept {
    return shared.state.load(std::memory_order_relaxed) == SUSPENDED;
}

/// Waits until the state changes or the time has passed, under the lock. Returns the result of the wait.
signed char Thread::waitForWakeup(Shared& shared, long long ms) {
    shared.state.store(SUSPENDED, std::memory_order_relaxed);
    AbsTimeT deadline(tarnbase::TimePoint::MAX.getCount());
    if (ms != 0 && __builtin_add_overflow(tarnbase::TimePoint::now().getCount(), ms, &deadline.value)) {
        deadline.value = tarnbase::TimePoint::MAX.getCount();
    }
    signed char result = 0;
    while (isSuspended(shared) && result == 0) {
        result = ms == 0 ? static_cast<signed char>(shared.condition.wait(shared.mutex) ? -1 : 0)
                         : shared.condition.waitTimeout(shared.mutex, deadline);
    }
    return result;
}

bool Thread::suspendCaller(Shared& shared, long long ms) {
    // Also unlocks when the thread is cancelled in the wait.
    MutexLock lock(shared.mutex);
    if (!lock.isLocked()) {
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::SUSPEND_FAILED);
    }
    State const before = shared.state.load(std::memory_order_relaxed);
    if (before == DEAD) {
        // The thread was terminated: the state stays DEAD, and no wakeup follows.
        if (lock.unlock()) {
            return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::SUSPEND_FAILED);
        }
        pthread_testcancel();
        return false;
    }
    if (shared.object_gone) {
        static_cast<void>(lock.unlock());
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "suspend() called by non-associated thread");
        return true;
    }
    signed char const result = waitForWakeup(shared, ms);
    if (result == -1) {
        SystemErrorText const text;
        if (isSuspended(shared)) {
            shared.state.store(before, std::memory_order_relaxed);
        }
        static_cast<void>(lock.unlock());
        report(SOURCE, Chain::ON_TOP, ErrorId::SUSPEND_FAILED, text.get());
        return true;
    }
    if (lock.unlock()) {
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::SUSPEND_FAILED);
    }
    return false;
}

bool Thread::wakeup() {
    MutexLock lock(m_shared.mutex);
    if (!lock.isLocked()) {
        return reportFailure(SOURCE, Chain::NEW, ErrorId::WAKEUP_FAILED);
    }
    if (getState() == SUSPENDED) {
        if (m_shared.condition.signal()) {
            SystemErrorText const text;
            static_cast<void>(lock.unlock());
            report(SOURCE, Chain::NEW, ErrorId::WAKEUP_FAILED, text.get());
            return true;
        }
        setState(RUNNING);
    }
    if (lock.unlock()) {
        return reportFailure(SOURCE, Chain::NEW, ErrorId::WAKEUP_FAILED);
    }
    return false;
}

bool Thread::terminate() {
    MutexLock lock(m_shared.mutex);
    if (!lock.isLocked()) {
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::TERMINATE_FAILED);
    }
    int error = ThreadLink::TOO_LATE;
    if (getState() == RUNNING) {
        error = m_link.endThread("terminate", [this] {
            // Nothing needs to join the thread after its cancellation. A join in progress replaces the
            // detaching.
            if (!m_detached_mode && !m_joining.load(std::memory_order_relaxed)) {
                pthread_detach(m_handle);
            }
            return pthread_cancel(m_handle);
        });
    }
    if (error == ThreadLink::TOO_LATE) {
        static_cast<void>(lock.unlock());
        report(
            SOURCE, Chain::UNKNOWN, std::CommonErrorId::CONTRACT_BROKEN,
            "Invalid state for termination request");
        return true;
    }
    if (error != 0) {
        static_cast<void>(lock.unlock());
        errno = error;
        return reportFailure(SOURCE, Chain::UNKNOWN, ErrorId::TERMINATE_FAILED);
    }
    setState(DEAD);
    if (lock.unlock()) {
        return reportFailure(SOURCE, Chain::ON_TOP, ErrorId::TERMINATE_FAILED);
    }
    callExitHandlers(getThreadId(), EXIT_TERMINATED);
    return false;
}

/// Waits, under the lock, until the thread no longer uses the object in its start-up.
void Thread::waitForTakeOver(char const* function) {
    while (!m_shared.taken_over) {
        if (m_shared.condition.wait(m_shared.mutex)) {
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, function, "wait failed");
        }
    }
}

Thread::~Thread() {
    if (!m_valid) {
        m_link.leaveObject();
        return;
    }
    CancellationOff const cancellation_off;
    insistOnLock(SOURCE, m_shared.mutex, DESTRUCTOR, "error getting state lock");
    // Also waits for a terminated joinable thread: it may not have reached its wrapper yet, and is never
    // joined.
    if ((m_detached_mode && getState() != CREATED) || getState() == DEAD) {
        waitForTakeOver(DESTRUCTOR);
    }
    m_shared.object_gone = true;
    switch (getState()) {
    case CREATED:
        endUnstarted();
        break;
    case FINISHED:
        unlockAgainOrAbort(SOURCE, m_shared.mutex, DESTRUCTOR, "error joining");
        insist(SOURCE, DESTRUCTOR, "error joining", [this] { return join(); });
        break;
    case SUSPENDED:
    case RUNNING:
        leaveRunning();
        break;
    case DEAD:
        unlockAgainOrAbort(SOURCE, m_shared.mutex, DESTRUCTOR);
        break;
    }
    if (getThreadState() != DEAD && !m_detached_mode) {
        GlobalErrorHandler::doAssert(
            false, "getThreadState() == DEAD || m_detached_mode", SOURCE, __LINE__, DESTRUCTOR, nullptr);
        abandon();
    }
    free(m_name);
    m_link.leaveObject();
}

/// Ends a thread that was never started, and waits for that. Releases the lock.
void Thread::endUnstarted() {
    constexpr char const* FAILURE = "error unlocking and signaling";
    setState(FINISHED);
    insist(SOURCE, DESTRUCTOR, FAILURE, [this] { return m_shared.condition.signal(); });
    unlockAgainOrAbort(SOURCE, m_shared.mutex, DESTRUCTOR, FAILURE);
    if (!m_detached_mode) {
        insist(SOURCE, DESTRUCTOR, "error joining non-detached thread", [this] { return join(); });
        return;
    }
    insistOnLock(SOURCE, m_shared.mutex, DESTRUCTOR);
    waitForTakeOver(DESTRUCTOR);
    unlockAgainOrAbort(SOURCE, m_shared.mutex, DESTRUCTOR);
}

/// Leaves a detached thread to itself. A joinable thread must not run any more. Releases the lock.
void Thread::leaveRunning() {
    if (m_detached_mode && getState() == SUSPENDED) {
        // Only the object could wake the thread.
        setState(RUNNING);
        insist(SOURCE, DESTRUCTOR, "error unlocking and signaling", [this] {
            return m_shared.condition.signal();
        });
    }
    unlockAgainOrAbort(SOURCE, m_shared.mutex, DESTRUCTOR);
    if (!m_detached_mode) {
        GlobalErrorHandler::doAbort(SOURCE, __LINE__, DESTRUCTOR, "thread still running");
    }
}

/// Lets a joinable thread that runs continue without its object, unless it is about to end. Reached only if a
/// hook lets `doAbort` return.
void Thread::abandon() {
    insistOnLock(SOURCE, m_shared.mutex, DESTRUCTOR, "error getting state lock");
    setState(DEAD);
    waitForTakeOver(DESTRUCTOR);
    unlockAgainOrAbort(SOURCE, m_shared.mutex, DESTRUCTOR);
    int const detached = m_link.endThread(DESTRUCTOR, [this] {
        pthread_detach(m_handle);
        return 0;
    });
    if (detached == ThreadLink::TOO_LATE) {
        pthread_join(m_handle, nullptr);
    }
}

// ---- exit handlers ----

bool Thread::registerExitHandler(ExitHandler handler) {
    bool full = false;
    if (getCallerThreadId() == s_main_thread_id) {
        // These are only stored: the main thread ends only with the process.
        full = addExitHandler(s_main_exit_handlers, handler);
    } else if (t_link == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "calling thread is no VESK thread");
        return true;
    } else {
        full = addExitHandler(t_link->m_exit_handlers, handler);
    }
    if (full) {
        // Nothing has set errno: the text is that of the most recent failure.
        report(SOURCE, Chain::NEW, SysErrorId::RESOURCES_EXHAUSTED, SystemErrorText().get());
        return true;
    }
    return false;
}

void Thread::callExitHandlers(ThreadId const& id, ExitReason reason) {
    for (std::atomic<ExitHandler> const& slot : m_link.m_exit_handlers) {
        ExitHandler const handler = slot.load(std::memory_order_relaxed);
        if (handler == nullptr) {
            return;
        }
        handler(id, reason);
    }
}

// ---- the calling thread ----

bool Thread::init() noexcept {
    s_main_thread_id = getCallerThreadId();
    return false;
}

bool Thread::yield() {
    if (sched_yield() != 0) {
        return reportFailure(SOURCE, Chain::NEW, ErrorId::YIELD_FAILED);
    }
    return false;
}

} // namespace vesk
