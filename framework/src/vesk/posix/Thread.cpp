#include <vesk/Thread.h>

#include "ErrnoTable.h"

#include <vesk/SysError.h>

#include <iterator>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Thread";

constexpr std::ErrorID ROWS[] = {
    {0, "Thread creation failed: %s", 1},
    {1, "Thread start failed: %s", 1},
    {2, "getting/setting Thread priority/scheduling parameters failed: %s", 1},
    {3, "Thread yield failed: %s", 1},
    {4, "Thread join failed: %s", 1},
    {5, "Thread terminate failed: %s", 1},
};

constexpr ErrnoRow READ_ERRORS[] = {
    {OTHERS, {SysError, 19}},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Thread::Error(ROWS, std::size(ROWS), SysError);

namespace {

/// Reads how a thread is scheduled. The nice value belongs to the kernel's thread, which only `tid` addresses. True on
/// failure, with the policy `VESK_SCHED_NOOP` and the parameters as they were.
bool readSchedAttrs(pthread_t thread, pid_t tid, sched::Policy& policy, sched::Param& param) {
    int kernel_policy = 0;
    sched_param kernel_param{};
    if (int const error = pthread_getschedparam(thread, &kernel_policy, &kernel_param)) {
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
        // -1 is a nice value like any other: only errno tells that it is none.
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
        report(SOURCE, Chain::NEW, Thread::Error, 2, "read unexpected policy from thread");
        return true;
    }
    param = sched::Param();
    param.priority = kernel_param.sched_priority;
    param.nice = nice;
    return false;
}

} // namespace

bool Thread::getCallerSchedAttrs(sched::Attr& attributes) {
    return readSchedAttrs(
        pthread_self(), static_cast<pid_t>(syscall(SYS_gettid)), attributes.policy, attributes.param);
}

} // namespace vesk
