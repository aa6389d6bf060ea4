#pragma once

#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/ProcessTNG.h>
#include <vesk/RWLock.h>
#include <vesk/Thread.h>
#include <vesk/common/LazyInit.h>

#include <map>
#include <string>

namespace vesk {

/// What all `ProcessTNG` share: the collector, a thread that waits for the end of children while there are some, and who
/// has started them.
class ProcessImpl {
public:
    using Children = std::map<int, ProcessTNG*>;

    ProcessImpl();
    ~ProcessImpl();

    /// Tells the collector to end when the last child has, and waits for that.
    void stop();

    Thread thread;
    bool collector_running = true;
    Mutex mutex; // Guards the flag and the children.
    Condition condition;
    Children proc_obj_map;

private:
    static void threadEntry(void*);
    void processCollector();
    void waitChild();
    void handleWaitFailure(int error);

    bool m_wait_failed = false; // The collector's own.
};

/// The name of the own program, once it is known.
class ProcessStaticImpl {
public:
    std::string name;
    RWLock lock;
    bool valid = false;
};

/// Starts the collector.
class LazyProcessInit : public LazyInitBase<void*> {
    bool doInit() override;
};

/// Makes the place for the name of the own program.
class LazyProcessStaticInit : public LazyInitBase<void*> {
    bool doInit() override;
};

// Written by the start-up, the set-ups and `ProcessTNG::exit`; a set-up that fails leaves null behind.
extern ProcessImpl* g_process_impl;
extern ProcessStaticImpl* g_process_static_impl;
extern LazyProcessInit* g_lazy_process_init;
extern LazyProcessStaticInit* g_lazy_process_static_init;

} // namespace vesk
