#pragma once

#include <vesk/sched.h>

#include <pthread.h>

namespace vesk::detail {

/// Applies scheduling to the attributes of a thread that is to be created. What the process has no right to, and what
/// the kernel has no policy for, ends in scheduling that is inherited.
///
/// @param kept  its policy becomes `VESK_SCHED_POLICY_NORMAL` if that is what it amounts to, which tells the new thread
///              to set its nice value
/// @return true on failure, reported as one of the creation
bool applySchedAttrs(pthread_attr_t& attributes, sched::Attr& kept);

/// Sets the nice value of a kernel thread. The number of the failure, 0 for success.
int setNice(pid_t tid, int nice) noexcept;

} // namespace vesk::detail
