#pragma once

#include <vesk/sched.h>

#include <pthread.h>

namespace vesk::detail {

/// Applies scheduling to the attributes of a thread before its creation. Falls back to inherited scheduling
/// if the process lacks the permission, or if the kernel has no such policy.
///
/// @param kept  its policy becomes `VESK_SCHED_POLICY_NORMAL` if the result is time sharing; the new thread
///              then sets its nice value
/// @return true on failure, reported as a failure of the creation
bool applySchedAttrs(pthread_attr_t& attributes, sched::Attr& kept);

/// Sets the nice value of a kernel thread. Returns the error number of a failure, 0 for success.
int setNice(pid_t tid, int nice) noexcept;

} // namespace vesk::detail
