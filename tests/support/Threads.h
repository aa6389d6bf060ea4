#pragma once

#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

/// Queries the system for the threads of the test's process.
namespace support {

inline pid_t getThreadId() noexcept {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

/// Returns whether the process has this thread. The system may still show a thread shortly after it was
/// joined.
inline bool isThread(pid_t thread) {
    return access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) == 0;
}

/// Returns the number of threads of the process, including those that are just ending.
inline int countThreads() {
    DIR* const directory = opendir("/proc/self/task");
    if (directory == nullptr) {
        return -1;
    }
    int count = -2; // "." and ".."
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

/// The number of threads that the program has before any test starts one. Includes those of a sanitizer or an
/// emulator. Excludes threads that an earlier test in the same process has joined and that the system still
/// shows. A forked child may have fewer.
inline int const g_threads_at_start = [] {
    // The thread sanitizer starts its own thread when the program starts its first one.
    pid_t first = 0;
    pthread_t thread{};
    auto const storeId = [](void* id) -> void* {
        *static_cast<pid_t*>(id) = getThreadId();
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, storeId, &first) != 0 || pthread_join(thread, nullptr) != 0) {
        return -1;
    }
    while (isThread(first)) {
        sched_yield();
    }
    return countThreads();
}();

/// Waits until the process has this number of threads. The system may still show a thread shortly after it was
/// joined.
inline testing::AssertionResult hasThreads(int count) {
    if (eventually([count] { return countThreads() == count; })) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << countThreads() << " threads instead of " << count;
}

} // namespace support
