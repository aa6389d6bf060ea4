#include "ThreadSched.h"

#include "ThreadLink.h"
#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/SysError.h>
#include <vesk/Thread.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>

#include <algorithm>
#include <limits>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = THREAD_SOURCE;

constexpr int NO_PRIORITY = std::numeric_limits<int>::min();

constexpr ErrnoRow INHERITANCE_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED, Thread::ErrorId::CREATE_FAILED},
};

constexpr ErrnoRow ATTRIBUTE_ERRORS[] = {
    {{EPERM, EACCES}, NONE, NONE, Outcome::INHERIT},
    {{EINVAL}, SysErrorId::INVALID_PARAMETER, Thread::ErrorId::CREATE_FAILED},
    {OTHERS, SysErrorId::UNCLASSIFIED, Thread::ErrorId::CREATE_FAILED},
};

constexpr ErrnoRow READ_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow SET_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED, Thread::ErrorId::SCHEDULING_FAILED},
};

constexpr ErrnoRow SET_PRIORITY_ERRORS[] = {
    {{EPERM}, SysErrorId::PERMISSION_DENIED, Thread::ErrorId::SCHEDULING_FAILED},
    {OTHERS, Thread::ErrorId::SCHEDULING_FAILED},
};

constexpr ErrnoRow RANGE_ERRORS[] = {
    {OTHERS, Thread::ErrorId::SCHEDULING_FAILED},
};

constexpr ErrnoRow AFFINITY_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

bool setInheritance(pthread_attr_t& attributes, int inheritance) {
    if (int const error = pthread_attr_setinheritsched(&attributes, inheritance)) {
        classify(SOURCE, INHERITANCE_ERRORS, error, "setting scheduler inheritance failed");
        return true;
    }
    return false;
}

// Not an error number of the system.
constexpr int UNKNOWN_POLICY = -1;

/// Sets the policy and its parameters. Returns 0, the error number, or `UNKNOWN_POLICY`.
int setPolicy(pthread_attr_t& attributes, int policy, sched::Attr& kept) {
    int const error = pthread_attr_setschedpolicy(&attributes, policy);
    sched_param param{};
    switch (policy) {
    case SCHED_RR:
    case SCHED_FIFO:
        param.sched_priority = kept.param.priority;
        break;
    case SCHED_OTHER:
        // Also if keeping the policy leads here: the thread itself must set the nice value.
        kept.policy = sched::VESK_SCHED_POLICY_NORMAL;
        break;
    default:
        // The calling thread has a policy that this library does not know. The result of setting it is
        // irrelevant.
        return UNKNOWN_POLICY;
    }
    return error != 0 ? error : pthread_attr_setschedparam(&attributes, &param);
}

/// Maps a policy to that of the kernel; returns false if the kernel has none for it. `KEEP` is the policy of
/// the calling thread.
bool toKernelPolicy(sched::Policy policy, int& kernel_policy, int& error) {
    sched_param caller_param{};
    switch (policy) {
    case sched::VESK_SCHED_POLICY_KEEP:
        error = pthread_getschedparam(pthread_self(), &kernel_policy, &caller_param);
        return true;
    case sched::VESK_SCHED_POLICY_RR:
        kernel_policy = SCHED_RR;
        return true;
    case sched::VESK_SCHED_POLICY_FIFO:
        kernel_policy = SCHED_FIFO;
        return true;
    case sched::VESK_SCHED_POLICY_NORMAL:
        kernel_policy = SCHED_OTHER;
        return true;
    default:
        return false;
    }
}

/// Reads how a thread is scheduled. The nice value belongs to the kernel's thread, which only `tid`
/// addresses. `get_param` is `pthread_getschedparam` on the thread. Returns true on failure, with the policy
/// `VESK_SCHED_NOOP` and the parameters unchanged.
template <typename GetParam>
bool readSchedAttrs(GetParam get_param, pid_t tid, sched::Policy& policy, sched::Param& param) {
    int kernel_policy = 0;
    sched_param kernel_param{};
    if (int const error = get_param(&kernel_policy, &kernel_param)) {
        policy = sched::VESK_SCHED_NOOP;
        classify(SOURCE, READ_ERRORS, error);
        return true;
    }
    int nice = 0;
    switch (kernel_policy) {
    case SCHED_FIFO:
        policy = sched::VESK_SCHED_POLICY_FIFO;
        break;
    case SCHED_RR:
        policy = sched::VESK_SCHED_POLICY_RR;
        break;
    case SCHED_OTHER:
        policy = sched::VESK_SCHED_POLICY_NORMAL;
        // -1 is a valid nice value: only errno indicates a failure.
        errno = 0;
        nice = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
        if (nice == -1 && errno != 0) {
            policy = sched::VESK_SCHED_NOOP;
            classify(SOURCE, READ_ERRORS, errno);
            return true;
        }
        break;
    default:
        policy = sched::VESK_SCHED_NOOP;
        report(SOURCE, Chain::NEW, Thread::ErrorId::SCHEDULING_FAILED, "read unexpected policy from thread");
        return true;
    }
    param = sched::Param();
    param.priority = kernel_param.sched_priority;
    param.nice = nice;
    return false;
}

/// Returns one limit of the priorities of the calling thread's policy.
int getPriorityLimit(int (*get_limit)(int policy)) {
    int policy = 0;
    sched_param param{};
    if (int const error = pthread_getschedparam(pthread_self(), &policy, &param)) {
        classify(SOURCE, RANGE_ERRORS, error);
        return NO_PRIORITY;
    }
    int const limit = get_limit(policy);
    if (limit == -1) {
        classify(SOURCE, RANGE_ERRORS, errno);
        return NO_PRIORITY;
    }
    return limit;
}

// The system's set has a fixed size, whatever the number of processors.
static_assert(sizeof(cpu_set_t) == 128 && CPU_SETSIZE == 1024);
constexpr size_t MAX_PROCESSORS = CPU_SETSIZE;

} // namespace

// ---- creation ----

namespace detail {

int setNice(pid_t tid, int nice) noexcept {
    return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) == 0 ? 0 : errno;
}

bool applySchedAttrs(pthread_attr_t& attributes, sched::Attr& kept) {
    if (kept.policy == sched::VESK_SCHED_NOOP) {
        return false;
    }
    if (setInheritance(attributes, PTHREAD_EXPLICIT_SCHED)) {
        return true;
    }
    int policy = 0;
    int error = 0;
    if (!toKernelPolicy(kept.policy, policy, error)) {
        return setInheritance(attributes, PTHREAD_INHERIT_SCHED);
    }
    if (error == 0) {
        error = setPolicy(attributes, policy, kept);
    }
    if (error == 0) {
        return false;
    }
    if (error != UNKNOWN_POLICY &&
        classify(SOURCE, ATTRIBUTE_ERRORS, error, "setting scheduling attributes failed") ==
            Outcome::FAILED) {
        return true;
    }
    return setInheritance(attributes, PTHREAD_INHERIT_SCHED);
}

} // namespace detail

// ---- priority, policy and parameters ----

bool Thread::setPriority(int priority) {
    MutexLock lock(m_shared.mutex);
    State const state = getState();
    if (!lock.isLocked() || lock.unlock()) {
        report(SOURCE, Chain::ON_TOP, ErrorId::SCHEDULING_FAILED, SystemErrorText().get());
        return true;
    }
    if (state == FINISHED || state == DEAD) {
        return false;
    }
    ThreadLink::Use const use(m_link, "setPriority");
    int policy = 0;
    sched_param param{};
    if (int const error = use.call([&] { return pthread_getschedparam(m_handle, &policy, &param); })) {
        errno = error;
        report(SOURCE, Chain::ON_TOP, ErrorId::SCHEDULING_FAILED, SystemErrorText().get());
        return true;
    }
    int error = 0;
    switch (policy) {
    case SCHED_OTHER:
        error = setNice(getTid(), priority);
        break;
    case SCHED_FIFO:
    case SCHED_RR:
        param.sched_priority = priority;
        error = pthread_setschedparam(m_handle, policy, &param);
        break;
    default:
        report(SOURCE, Chain::NEW, ErrorId::SCHEDULING_FAILED, "read unexpected policy from thread");
        return true;
    }
    if (error != 0) {
        classify(SOURCE, SET_PRIORITY_ERRORS, error, "insufficient privileges");
        return true;
    }
    return false;
}

int Thread::getPriority() const {
    sched::Attr attributes;
    if (getSchedAttrs(attributes)) {
        return NO_PRIORITY;
    }
    return attributes.policy == sched::VESK_SCHED_POLICY_NORMAL ? attributes.param.nice
                                                                : attributes.param.priority;
}

bool Thread::setSchedAttrs(sched::Attr const& attributes) {
    ThreadLink::Use const use(m_link, "setSchedAttrs");
    sched_param param{};
    int policy = SCHED_OTHER;
    int error = 0;
    switch (attributes.policy) {
    case sched::VESK_SCHED_NOOP:
        return false;
    case sched::VESK_SCHED_POLICY_KEEP:
        error = use.call([&] { return pthread_getschedparam(m_handle, &policy, &param); });
        param.sched_priority = attributes.param.priority;
        break;
    case sched::VESK_SCHED_POLICY_RR:
        policy = SCHED_RR;
        param.sched_priority = attributes.param.priority;
        break;
    case sched::VESK_SCHED_POLICY_FIFO:
        policy = SCHED_FIFO;
        param.sched_priority = attributes.param.priority;
        break;
    case sched::VESK_SCHED_POLICY_NORMAL:
        break;
    default:
        report(SOURCE, Chain::NEW, ErrorId::SCHEDULING_FAILED, "unexpected policy");
        return true;
    }
    if (error == 0) {
        error = use.call([&] { return pthread_setschedparam(m_handle, policy, &param); });
    }
    if (error == 0 && attributes.policy == sched::VESK_SCHED_POLICY_NORMAL) {
        error = setNice(getTid(), attributes.param.nice);
    }
    if (error != 0) {
        classify(SOURCE, SET_ERRORS, error, "setting scheduling policy/parameter failed");
        return true;
    }
    return false;
}

bool Thread::getSchedAttrs(sched::Attr& attributes) const {
    ThreadLink::Use const use(m_link, "getSchedAttrs");
    return readSchedAttrs(
        [&](int* policy, sched_param* param) {
            return use.call([&] { return pthread_getschedparam(m_handle, policy, param); });
        },
        getTid(), attributes.policy, attributes.param);
}

bool Thread::getCallerSchedAttrs(sched::Attr& attributes) {
    return readSchedAttrs(
        [](int* policy, sched_param* param) { return pthread_getschedparam(pthread_self(), policy, param); },
        static_cast<pid_t>(syscall(SYS_gettid)), attributes.policy, attributes.param);
}

sched::Attr Thread::getMainSchedAttrs() {
    return Vesk::s_vesk_ctor_sched_attrs;
}

int Thread::getMinPriority() {
    return getPriorityLimit(sched_get_priority_min);
}

int Thread::getMaxPriority() {
    return getPriorityLimit(sched_get_priority_max);
}

// ---- affinity ----

bool Thread::setCPUAffinity(std::vector<bool> const& processors) {
    cpu_set_t set;
    CPU_ZERO(&set);
    size_t const count = std::min(
        processors.empty() ? size_t{Vesk::s_sys_info.processor_count} : processors.size(), MAX_PROCESSORS);
    for (size_t i = 0; i < count; ++i) {
        if (processors.empty() || processors[i]) {
            CPU_SET(i, &set);
        }
    }
    if (!processors.empty() && CPU_COUNT(&set) == 0) {
        return false;
    }
    ThreadLink::Use const use(m_link, "setCPUAffinity");
    if (int const error = use.call([&] { return pthread_setaffinity_np(m_handle, sizeof set, &set); })) {
        classify(SOURCE, AFFINITY_ERRORS, error);
        return true;
    }
    return false;
}

bool Thread::getCPUAffinity(std::vector<bool>& processors) {
    cpu_set_t set;
    CPU_ZERO(&set);
    ThreadLink::Use const use(m_link, "getCPUAffinity");
    if (int const error = use.call([&] { return pthread_getaffinity_np(m_handle, sizeof set, &set); })) {
        classify(SOURCE, AFFINITY_ERRORS, error);
        return true;
    }
    size_t const count = Vesk::s_sys_info.processor_count;
    if (count == 0) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::UNSUPPORTED_VALUE, "cpu count is 0");
        return true;
    }
    processors.resize(count);
    for (size_t i = 0; i < count; ++i) {
        processors[i] = i < MAX_PROCESSORS && CPU_ISSET(i, &set);
    }
    return false;
}

} // namespace vesk
