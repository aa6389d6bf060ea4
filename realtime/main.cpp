// Measures how late threads react: to a timer, to a lock, a condition and a post that another thread gives, and to a
// signal. With ordinary and with real-time scheduling, on an idle and on a busy machine. Prints tables in Markdown.
//
//   realtime [SAMPLES]

#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/SignalCatcher.h>
#include <vesk/Timer.h>
#include <vesk/Vesk.h>
#include <vesk/loop/Loop.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int DEFAULT_SAMPLES = 1000;
constexpr int PRIORITY = 50;
constexpr timespec PAUSE{0, 1000000}; ///< Until the other thread waits.
constexpr int64_t BUSY_NS = 20000000; ///< What a thread of middle priority works at a time.

int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

void check(bool failed, char const* what) {
    if (failed) {
        fprintf(stderr, "realtime: %s failed: %s\n", what, strerror(errno));
        exit(1);
    }
}

class Semaphore {
public:
    Semaphore() { check(sem_init(&m_semaphore, 0, 0) != 0, "sem_init"); }
    ~Semaphore() { sem_destroy(&m_semaphore); }
    void post() { check(sem_post(&m_semaphore) != 0, "sem_post"); }
    void wait() {
        while (sem_wait(&m_semaphore) != 0) {
            check(errno != EINTR, "sem_wait");
        }
    }

private:
    sem_t m_semaphore;
};

/// The delays of one row, in nanoseconds.
class Row {
public:
    explicit Row(char const* name) : m_name(name) {}

    void add(int64_t delay) { m_delays.push_back(delay); }

    void print() {
        std::sort(m_delays.begin(), m_delays.end());
        size_t const last = m_delays.size() - 1;
        printf(
            "| %s | %.1f | %.1f | %.1f |\n", m_name, toMicroseconds(m_delays[last / 2]),
            toMicroseconds(m_delays[last * 99 / 100]), toMicroseconds(m_delays[last]));
        fflush(stdout);
    }

private:
    static double toMicroseconds(int64_t ns) { return static_cast<double>(ns) / 1000; }

    char const* m_name;
    std::vector<int64_t> m_delays;
};

/// The moment at which something was given, and the thread's message that it has taken it.
struct Given {
    std::atomic<int64_t> at{0};
    Semaphore taken;

    void give() { at = now(); }
    void take(Row& row) {
        row.add(now() - at);
        taken.post();
    }
};

void measureBare(int samples) {
    Row row("bare `sem_post` to the end of `sem_wait`");
    Given given;
    Semaphore semaphore;
    std::thread waiter([&] {
        for (int i = 0; i < samples; ++i) {
            semaphore.wait();
            given.take(row);
        }
    });
    for (int i = 0; i < samples; ++i) {
        nanosleep(&PAUSE, nullptr);
        given.give();
        semaphore.post();
        given.taken.wait();
    }
    waiter.join();
    row.print();
}

void measureMutex(int samples, char const* name, vesk::Mutex::Protocol protocol) {
    Row row(name);
    Given given;
    Semaphore is_held;
    vesk::Mutex mutex(false, protocol);
    std::thread waiter([&] {
        for (int i = 0; i < samples; ++i) {
            is_held.wait();
            check(mutex.lock(), "lock");
            given.take(row);
            check(mutex.unlock(), "unlock");
        }
    });
    for (int i = 0; i < samples; ++i) {
        check(mutex.lock(), "lock");
        is_held.post();
        nanosleep(&PAUSE, nullptr);
        given.give();
        check(mutex.unlock(), "unlock");
        given.taken.wait();
    }
    waiter.join();
    row.print();
}

void measureCondition(int samples) {
    Row row("`Condition::signal` to the end of `wait`");
    Given given;
    vesk::Mutex mutex;
    vesk::Condition condition;
    int given_times = 0;
    std::thread waiter([&] {
        vesk::MutexLock const lock(mutex);
        for (int i = 0; i < samples; ++i) {
            while (given_times == i) {
                check(condition.wait(mutex), "wait");
            }
            given.take(row);
        }
    });
    for (int i = 0; i < samples; ++i) {
        nanosleep(&PAUSE, nullptr);
        {
            vesk::MutexLock const lock(mutex);
            ++given_times;
        }
        given.give();
        check(condition.signal(), "signal");
        given.taken.wait();
    }
    waiter.join();
    row.print();
}

void measureSignal(int samples) {
    struct Caught {
        Row row{"`kill` to the callback of a `SignalCatcher`"};
        Given given;
    } caught;
    vesk::SignalCatcher const catcher(
        SIGUSR1,
        [](int, void* data) {
            auto& to = *static_cast<Caught*>(data);
            to.given.take(to.row);
        },
        &caught);
    for (int i = 0; i < samples; ++i) {
        nanosleep(&PAUSE, nullptr);
        caught.given.give();
        check(kill(getpid(), SIGUSR1) != 0, "kill");
        caught.given.taken.wait();
    }
    caught.row.print();
}

void measureTimer(int samples, char const* name, bool high_priority) {
    constexpr int DELAY_MS = 2;
    static Row* s_row;
    static Given* s_given;
    Row row(name);
    Given given;
    s_row = &row;
    s_given = &given;
    vesk::Timer timer([](vesk::Timer*) { s_given->take(*s_row); }, high_priority);
    for (int i = 0; i < samples; ++i) {
        given.at = now() + DELAY_MS * 1000000LL;
        check(timer.start(DELAY_MS, false), "start");
        given.taken.wait();
    }
    row.print();
}

void measureLoop(int samples) {
    Row posts("`post` to its call by a `Loop`");
    Row timers("a timer of a `Loop`");
    Given given;
    vesk::loop::Loop loop;
    std::thread runner([&] { check(!loop.run(), "run"); });
    for (int i = 0; i < samples; ++i) {
        nanosleep(&PAUSE, nullptr);
        given.give();
        check(!loop.post([&] { given.take(posts); }), "post");
        given.taken.wait();
    }
    vesk::loop::Timer timer;
    for (int i = 0; i < samples; ++i) {
        auto const start = [&] {
            constexpr std::chrono::milliseconds DELAY(2);
            given.at = now() + std::chrono::nanoseconds(DELAY).count();
            timer = *loop.after(DELAY, [&] { given.take(timers); });
        };
        check(!loop.post(start), "post");
        given.taken.wait();
    }
    loop.stop();
    runner.join();
    posts.print();
    timers.print();
}

/// Gives the calling thread a real-time priority on the first processor that it may use.
void becomeUrgent(int priority) {
    cpu_set_t all;
    cpu_set_t one;
    CPU_ZERO(&one);
    check(sched_getaffinity(0, sizeof all, &all) != 0, "sched_getaffinity");
    for (size_t i = 0; i < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++i) {
        if (CPU_ISSET(i, &all)) {
            CPU_SET(i, &one);
        }
    }
    check(sched_setaffinity(0, sizeof one, &one) != 0, "sched_setaffinity");
    sched_param param{};
    param.sched_priority = priority;
    errno = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
    check(errno != 0, "pthread_setschedparam");
}

/// Measures how long an urgent thread waits for a lock that one of low priority holds, while one of middle priority
/// works on the same processor.
void measureInversion(int samples, char const* name, vesk::Mutex::Protocol protocol) {
    Row row(name);
    vesk::Mutex mutex(false, protocol);
    for (int i = 0; i < samples; ++i) {
        Semaphore is_held;
        Semaphore go[3];
        std::thread director([&] {
            becomeUrgent(PRIORITY + 4);
            std::thread low([&] {
                becomeUrgent(PRIORITY + 1);
                check(mutex.lock(), "lock");
                is_held.post();
                go[0].wait();
                check(mutex.unlock(), "unlock");
            });
            is_held.wait();
            std::thread middle([&] {
                becomeUrgent(PRIORITY + 2);
                go[1].wait();
                for (int64_t const end = now() + BUSY_NS; now() < end;) {}
            });
            std::thread high([&] {
                becomeUrgent(PRIORITY + 3);
                go[2].wait();
                int64_t const start = now();
                check(mutex.lock(), "lock");
                row.add(now() - start);
                check(mutex.unlock(), "unlock");
            });
            for (Semaphore& each : go) {
                each.post();
            }
            // They run from here on, while this thread waits.
            high.join();
            middle.join();
            low.join();
        });
        director.join();
    }
    row.print();
}

/// Keeps all processors busy by twice as many processes, which compute and change their address spaces.
class Load {
public:
    Load() {
        for (long i = 2 * sysconf(_SC_NPROCESSORS_ONLN); i > 0; --i) {
            pid_t const child = fork();
            check(child < 0, "fork");
            if (child == 0) {
                work();
            }
            m_children.push_back(child);
        }
    }
    ~Load() {
        for (pid_t const child : m_children) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

private:
    [[noreturn]] static void work() {
        constexpr size_t SIZE = 1 << 20;
        for (;;) {
            void* const memory =
                mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (memory != MAP_FAILED) {
                memset(memory, 1, SIZE);
                munmap(memory, SIZE);
            }
        }
    }

    std::vector<pid_t> m_children;
};

struct Scene {
    char const* name;
    bool is_real_time;
    bool is_busy;
};

void measure(Scene const& scene, int samples) {
    printf("\n| %s | median µs | 99 %% | maximum |\n|---|---|---|---|\n", scene.name);
    fflush(stdout);
    std::unique_ptr<Load> const load(scene.is_busy ? new Load : nullptr);
    if (scene.is_real_time) {
        check(mlockall(MCL_CURRENT | MCL_FUTURE) != 0, "mlockall");
        sched_param param{};
        param.sched_priority = PRIORITY;
        check(sched_setscheduler(0, SCHED_FIFO, &param) != 0, "sched_setscheduler");
    }
    vesk::Vesk const vesk(true, false);
    measureBare(samples);
    measureMutex(samples, "`Mutex::unlock` to the end of `lock`", vesk::Mutex::Protocol::NONE);
    measureMutex(samples, "the same, `Protocol::INHERIT`", vesk::Mutex::Protocol::INHERIT);
    measureCondition(samples);
    measureSignal(samples);
    measureTimer(samples, "a `Timer`", false);
    measureTimer(samples, "a `Timer` of high priority", true);
    measureLoop(samples);
    if (scene.is_real_time) {
        int const rounds = std::min(samples, 50);
        measureInversion(
            rounds, "`lock` of an urgent thread, 20 ms of middle work", vesk::Mutex::Protocol::NONE);
        measureInversion(rounds, "the same, `Protocol::INHERIT`", vesk::Mutex::Protocol::INHERIT);
    }
}

bool mayBeUrgent() {
    sched_param param{};
    param.sched_priority = PRIORITY;
    bool const may = sched_setscheduler(0, SCHED_FIFO, &param) == 0;
    param.sched_priority = 0;
    return sched_setscheduler(0, SCHED_OTHER, &param) == 0 && may;
}

} // namespace

int main(int argc, char** argv) {
    int const samples = argc > 1 ? atoi(argv[1]) : DEFAULT_SAMPLES;
    if (argc > 2 || samples <= 0) {
        fprintf(stderr, "realtime [SAMPLES]\n");
        return 1;
    }
    constexpr Scene SCENES[] = {
        {"ordinary scheduling, idle machine", false, false},
        {"ordinary scheduling, busy machine", false, true},
        {"`SCHED_FIFO`, idle machine", true, false},
        {"`SCHED_FIFO`, busy machine", true, true},
    };
    bool const may_be_urgent = mayBeUrgent();
    for (Scene const& scene : SCENES) {
        if (scene.is_real_time && !may_be_urgent) {
            printf("\n%s: not allowed to this user\n", scene.name);
            continue;
        }
        pid_t const child = fork(); // A process of its own, in which the library starts anew.
        check(child < 0, "fork");
        if (child == 0) {
            measure(scene, samples);
            exit(0);
        }
        int status = 0;
        check(waitpid(child, &status, 0) < 0, "waitpid");
        if (status != 0) {
            return 1;
        }
    }
    return 0;
}
