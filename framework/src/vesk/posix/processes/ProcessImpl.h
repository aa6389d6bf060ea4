#pragma once

#include "vesk/posix/detail/FamilyIndex.h"

#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/ProcessTNG.h>
#include <vesk/RWLock.h>
#include <vesk/Thread.h>
#include <vesk/common/LazyInit.h>

#include <csignal>
#include <map>
#include <string>

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(ProcessTNG::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::PROCESS;
}

/// The `file` of reports about the collector, and about the ends of children that it passes on.
constexpr char const* PROCESS_IMPL_SOURCE = "framework/src/vesk/posix/ProcessImpl";

/// State shared by all `ProcessTNG` objects: the collector, which is a thread that waits for the end of
/// children, and the map from running children to their objects.
class ProcessImpl {
public:
    using Children = std::map<int, ProcessTNG*>;

    ProcessImpl();
    ~ProcessImpl();

    /// Stops the collector after the last child has ended, and waits for that.
    void stop();

    /// Marks a collector as stopped before it is destroyed. For a collector that never started its thread: it
    /// takes no lock.
    void discard() noexcept TARN_NOT_ANALYZED { collector_running = false; }

    /// Reaps a child that has ended. Never blocks: something else may have reaped it already, and its id may
    /// belong to a running child.
    static void reap(int pid);

    Thread thread;
    bool collector_running TARN_GUARDED_BY(mutex) = true;
    Mutex mutex{TARN_LOCK_NAME(COLLECTOR)};
    Condition condition;
    Children proc_obj_map TARN_GUARDED_BY(mutex);

private:
    static void threadEntry(void*);
    void processCollector();
    void waitChild() TARN_ACQUIRE(mutex);
    void handleWaitFailure(int error) TARN_ACQUIRE(mutex);
    Children::iterator findEnded(siginfo_t& info) TARN_REQUIRES(mutex);
    void pause(long long milliseconds) TARN_REQUIRES(mutex);
    void finish(Children::iterator child, siginfo_t const& info) TARN_REQUIRES(mutex);

    bool m_wait_failed = false; // Used by the collector's thread only.
};

/// The name of the calling process's program, once it is known.
class ProcessStaticImpl {
public:
    RWLock lock;
    std::string name TARN_GUARDED_BY(lock);
    bool valid TARN_GUARDED_BY(lock) = false;
};

/// Creates `g_process_impl` and starts the collector.
class LazyProcessInit : public LazyInitBase<void*> {
    bool doInit() override;
};

/// Creates `g_process_static_impl`.
class LazyProcessStaticInit : public LazyInitBase<void*> {
    bool doInit() override;
};

// Written by `ProcessTNG::init`, the lazy initializations and `ProcessTNG::exit`. A failed initialization
// leaves null behind.
extern ProcessImpl* g_process_impl;
extern ProcessStaticImpl* g_process_static_impl;
extern LazyProcessInit* g_lazy_process_init;
extern LazyProcessStaticInit* g_lazy_process_static_init;

} // namespace vesk
