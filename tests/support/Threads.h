#pragma once

#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

/// The threads of the test's process, as the system sees them.
namespace support {

inline pid_t getThreadId() noexcept {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

/// Whether the process has such a thread. One that was joined may take a little longer to go.
inline bool isThread(pid_t thread) {
    return access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) == 0;
}

/// How many threads the process has, those included that end right now.
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

/// How many threads the program has before a test starts one: those of a sanitizer or an emulator included, none that
/// an earlier test in the same process has joined and that the system still shows. A forked child may have fewer.
inline int const g_threads_at_start = [] {
    // The first thread of a program makes the thread sanitizer start one of its own.
    pid_t first = 0;
    pthread_t thread{};
    auto const tell = [](void* id) -> void* {
        *static_cast<pid_t*>(id) = getThreadId();
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, tell, &first) != 0 || pthread_join(thread, nullptr) != 0) {
        return -1;
    }
    while (isThread(first)) {
        sched_yield();
    }
    return countThreads();
}();

} // namespace support
