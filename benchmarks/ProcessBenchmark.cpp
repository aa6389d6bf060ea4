#include "Ballast.h"

#include <vesk/ProcessTNG.h>
#include <vesk/Vesk.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr char const* PROGRAM = "/bin/true";

vesk::Vesk const& startLibrary() {
    static vesk::Vesk const s_vesk(true, false);
    return s_vesk;
}

long long now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

// ---- start and wait ----

/// Starts a child and waits for its end. A separate thread reaps the children.
class BareProcess {
public:
    BareProcess() : m_thread([this] { collect(); }) {}
    ~BareProcess() {
        pthread_mutex_lock(&m_mutex);
        m_running = false;
        pthread_cond_broadcast(&m_started);
        pthread_mutex_unlock(&m_mutex);
        m_thread.join();
    }
    BareProcess(BareProcess const&) = delete;
    BareProcess& operator=(BareProcess const&) = delete;

    void start(char const* program, char const* const* argv) {
        pthread_mutex_lock(&m_mutex);
        m_ended = false;
        m_pid = fork();
        if (m_pid == 0) {
            execv(program, const_cast<char* const*>(argv));
            _exit(1);
        }
        check(m_pid == -1);
        pthread_cond_broadcast(&m_started);
        pthread_mutex_unlock(&m_mutex);
    }

    int wait() {
        pthread_mutex_lock(&m_mutex);
        while (!m_ended) {
            pthread_cond_wait(&m_condition, &m_mutex);
        }
        int const status = m_status;
        pthread_mutex_unlock(&m_mutex);
        return status;
    }

private:
    void collect() {
        pthread_mutex_lock(&m_mutex);
        while (m_running) {
            if (m_pid == -1) {
                pthread_cond_wait(&m_started, &m_mutex);
                continue;
            }
            pthread_mutex_unlock(&m_mutex);
            siginfo_t info{};
            waitid(P_ALL, 0, &info, WEXITED);
            pthread_mutex_lock(&m_mutex);
            if (info.si_pid == m_pid) {
                m_status = info.si_status;
                m_pid = -1;
                m_ended = true;
                pthread_cond_signal(&m_condition);
            }
        }
        pthread_mutex_unlock(&m_mutex);
    }

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_started = PTHREAD_COND_INITIALIZER;
    pthread_cond_t m_condition = PTHREAD_COND_INITIALIZER;
    bool m_running = true;
    pid_t m_pid = -1;
    bool m_ended = false;
    int m_status = 0;
    std::thread m_thread;
};

void startAndWait(benchmark::State& state) {
    startLibrary();
    Ballast const ballast(state);
    vesk::ProcessTNG process;
    check(process.setExecutable(PROGRAM));
    for (auto _ : state) {
        check(process.start() == vesk::ProcessTNG::INVALID_PROCESS_ID);
        vesk::ProcessTNG::ExitState end;
        check(process.wait(end, false, 0) || end.killed || end.status != 0);
    }
}
BENCHMARK(startAndWait)
    ->Name("Child started and waited for, by MiB of its parent (at most 1.15)/vesk")
    ->Arg(0)
    ->Arg(512)
    ->UseRealTime();

void bareStartAndWait(benchmark::State& state) {
    Ballast const ballast(state);
    BareProcess process;
    char const* const argv[] = {PROGRAM, nullptr};
    for (auto _ : state) {
        process.start(PROGRAM, argv);
        check(process.wait() != 0);
    }
}
BENCHMARK(bareStartAndWait)
    ->Name("Child started and waited for, by MiB of its parent (at most 1.15)/bare")
    ->Arg(0)
    ->Arg(512)
    ->UseRealTime();

// ---- from the end of the child to the waiter ----

/// Shared memory in which a child that does not execute a program stores the time of its end.
struct LastMoment {
    LastMoment()
        : ns(static_cast<long long*>(
              mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        check(ns == MAP_FAILED);
    }
    ~LastMoment() { munmap(ns, 4096); }
    LastMoment(LastMoment const&) = delete;
    LastMoment& operator=(LastMoment const&) = delete;

    long long* ns;
};

LastMoment* g_last_moment = nullptr;

} // namespace

/// Replaces `execv`. During the wake-up rows the child stores the time and exits instead of executing a
/// program.
extern "C" int execv(char const* path, char* const* argv) noexcept {
    if (g_last_moment != nullptr) {
        timespec const settle{0, 2000000}; // Until the parent waits.
        nanosleep(&settle, nullptr);
        *g_last_moment->ns = now();
        _exit(0);
    }
    return execve(path, argv, environ);
}

namespace {

template <typename Start, typename Wait>
void measureWakeUp(benchmark::State& state, Start start, Wait wait) {
    LastMoment moment;
    g_last_moment = &moment;
    std::vector<long long> delays;
    for (auto _ : state) {
        start();
        wait();
        long long const delay = now() - *moment.ns;
        delays.push_back(delay);
        state.SetIterationTime(static_cast<double>(delay) * 1e-9);
    }
    g_last_moment = nullptr;
    std::sort(delays.begin(), delays.end());
    auto const at = [&delays](size_t percent) {
        return static_cast<double>(delays[delays.size() * percent / 100]) / 1000;
    };
    state.counters["wake_p50_us"] = at(50);
    state.counters["wake_p99_us"] = at(99);
}

void wakeUp(benchmark::State& state) {
    startLibrary();
    vesk::ProcessTNG process;
    check(process.setExecutable(PROGRAM));
    vesk::ProcessTNG::ExitState end;
    measureWakeUp(
        state, [&] { check(process.start() == vesk::ProcessTNG::INVALID_PROCESS_ID); },
        [&] { check(process.wait(end, false, 0)); });
}
BENCHMARK(wakeUp)->Name("Child's end to its waiter/vesk")->Iterations(200)->UseManualTime();

void bareWakeUp(benchmark::State& state) {
    BareProcess process;
    char const* const argv[] = {PROGRAM, nullptr};
    measureWakeUp(
        state, [&] { process.start(PROGRAM, argv); }, [&] { check(process.wait() != 0); });
}
BENCHMARK(bareWakeUp)->Name("Child's end to its waiter/bare")->Iterations(200)->UseManualTime();

// ---- processes by their names ----

/// A number of idle processes.
class Crowd {
public:
    explicit Crowd(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            pid_t const pid = fork();
            check(pid == -1);
            if (pid == 0) {
                for (;;) {
                    pause();
                }
            }
            m_pids.push_back(pid);
        }
    }
    ~Crowd() {
        for (pid_t const pid : m_pids) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    Crowd(Crowd const&) = delete;
    Crowd& operator=(Crowd const&) = delete;

private:
    std::vector<pid_t> m_pids;
};

constexpr size_t CROWD = 300;
constexpr char const* NAME = "bench_Process";

void findByName(benchmark::State& state) {
    startLibrary();
    Crowd const crowd(CROWD);
    std::vector<int> pids;
    for (auto _ : state) {
        pids.clear();
        vesk::ProcessTNG::getProcessId(NAME, pids, false);
    }
    check(pids.size() <= CROWD);
}
BENCHMARK(findByName)->Name("Processes found by name, of 300 (at most 1.2)/vesk")->UseRealTime();

void bareFindByName(benchmark::State& state) {
    Crowd const crowd(CROWD);
    std::vector<int> pids;
    for (auto _ : state) {
        pids.clear();
        DIR* const directory = opendir("/proc");
        check(directory == nullptr);
        while (dirent const* const entry = readdir(directory)) {
            char* end = nullptr;
            unsigned long const pid = strtoul(entry->d_name, &end, 10);
            if (end == entry->d_name || *end != '\0') {
                continue;
            }
            char path[64];
            snprintf(path, sizeof path, "/proc/%lu/cmdline", pid);
            FILE* const file = fopen(path, "r");
            if (file == nullptr) {
                continue;
            }
            char command[PATH_MAX];
            if (fgets(command, sizeof command, file) != nullptr) {
                char const* const slash = strrchr(command, '/');
                if (strcmp(slash != nullptr ? slash + 1 : command, NAME) == 0) {
                    pids.push_back(static_cast<int>(pid));
                }
            }
            fclose(file);
        }
        closedir(directory);
    }
    check(pids.size() <= CROWD);
}
BENCHMARK(bareFindByName)->Name("Processes found by name, of 300 (at most 1.2)/bare")->UseRealTime();

} // namespace
