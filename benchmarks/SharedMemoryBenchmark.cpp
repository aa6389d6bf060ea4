#include <vesk/SharedMemoryServer.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using vesk::MemMapping;

void check(int error) {
    if (error != 0) {
        abort();
    }
}

// ---- streaming through a ring ----

constexpr unsigned int RING_SIZE = 65536;
constexpr unsigned int BLOCK_SIZE = 701; // Few blocks end at the end of the ring.

char s_block[BLOCK_SIZE];

/// Anonymous shared memory, the same for both twins.
class Memory {
public:
    explicit Memory(unsigned int size) {
        std::string const name = "vesk-bench-" + std::to_string(getpid());
        check(m_shm.create(name.c_str(), size, m_shm.REPLACE) || m_shm.deleteName() ? 1 : 0);
    }

    char* map(unsigned int size, bool ring) {
        MemMapping const mapping =
            m_shm.addMapping(MemMapping::READ | MemMapping::WRITE, size, 0, nullptr, ring);
        check(mapping.isValid() ? 0 : 1);
        return static_cast<char*>(mapping.getAddress());
    }

private:
    vesk::SharedMemoryServer m_shm;
};

void streamVesk(benchmark::State& state) {
    Memory memory(RING_SIZE);
    char* const ring = memory.map(RING_SIZE, true);
    memset(ring, 0, 2 * RING_SIZE);
    unsigned int at = 0;
    for (auto _ : state) {
        memcpy(ring + at % RING_SIZE, s_block, BLOCK_SIZE);
        benchmark::ClobberMemory();
        memcpy(s_block, ring + at % RING_SIZE, BLOCK_SIZE);
        benchmark::ClobberMemory();
        at += BLOCK_SIZE;
    }
}
BENCHMARK(streamVesk)->Name("MemMapping ring-buffer streaming (at most 1.00)/vesk");

void streamBare(benchmark::State& state) {
    Memory memory(RING_SIZE);
    char* const ring = memory.map(RING_SIZE, false);
    memset(ring, 0, RING_SIZE);
    unsigned int at = 0;
    for (auto _ : state) {
        unsigned int const begin = at % RING_SIZE;
        unsigned int const first = std::min(BLOCK_SIZE, RING_SIZE - begin);
        memcpy(ring + begin, s_block, first);
        memcpy(ring, s_block + first, BLOCK_SIZE - first);
        benchmark::ClobberMemory();
        memcpy(s_block, ring + begin, first);
        memcpy(s_block + first, ring, BLOCK_SIZE - first);
        benchmark::ClobberMemory();
        at += BLOCK_SIZE;
    }
}
BENCHMARK(streamBare)->Name("MemMapping ring-buffer streaming (at most 1.00)/bare");

// ---- ping-pong between two processes ----

/// Binds the calling process and its children to one processor, so that each hand-over is exactly one context
/// switch.
class OneProcessor {
public:
    OneProcessor() {
        check(sched_getaffinity(0, sizeof m_before, &m_before));
        cpu_set_t one;
        CPU_ZERO(&one);
        for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
            if (CPU_ISSET(cpu, &m_before)) {
                CPU_SET(cpu, &one);
                break;
            }
        }
        check(sched_setaffinity(0, sizeof one, &one));
    }
    ~OneProcessor() { sched_setaffinity(0, sizeof m_before, &m_before); }
    OneProcessor(OneProcessor const&) = delete;
    OneProcessor& operator=(OneProcessor const&) = delete;

private:
    cpu_set_t m_before;
};

enum class Ball { HERE, THERE, GONE };

struct VeskTable {
    void lock() { check(mutex.lock() ? 1 : 0); }
    void unlock() { check(mutex.unlock() ? 1 : 0); }
    void waitHere() { check(here.wait(mutex) ? 1 : 0); }
    void waitThere() { check(there.wait(mutex) ? 1 : 0); }
    void signalHere() { check(here.signal() ? 1 : 0); }
    void signalThere() { check(there.signal() ? 1 : 0); }

    vesk::ShmMutex mutex;
    vesk::ShmCondition here;
    vesk::ShmCondition there;
    Ball ball = Ball::HERE;
};

struct BareTable {
    BareTable() {
        pthread_mutexattr_t mutex_attributes;
        check(pthread_mutexattr_init(&mutex_attributes));
        check(pthread_mutexattr_setpshared(&mutex_attributes, PTHREAD_PROCESS_SHARED));
        check(pthread_mutex_init(&mutex, &mutex_attributes));
        pthread_condattr_t attributes;
        check(pthread_condattr_init(&attributes));
        check(pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED));
        check(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC));
        check(pthread_cond_init(&here, &attributes));
        check(pthread_cond_init(&there, &attributes));
    }
    void lock() { check(pthread_mutex_lock(&mutex)); }
    void unlock() { check(pthread_mutex_unlock(&mutex)); }
    void waitHere() { check(pthread_cond_wait(&here, &mutex)); }
    void waitThere() { check(pthread_cond_wait(&there, &mutex)); }
    void signalHere() { check(pthread_cond_signal(&here)); }
    void signalThere() { check(pthread_cond_signal(&there)); }

    pthread_mutex_t mutex;
    pthread_cond_t here;
    pthread_cond_t there;
    Ball ball = Ball::HERE;
};

template <typename Table>
[[noreturn]] void playThere(Table& table) {
    table.lock();
    for (;;) {
        while (table.ball == Ball::HERE) {
            table.waitThere();
        }
        if (table.ball == Ball::GONE) {
            break;
        }
        table.ball = Ball::HERE;
        table.signalHere();
    }
    table.unlock();
    _exit(0);
}

template <typename Table>
void pingPong(benchmark::State& state) {
    OneProcessor const one_processor;
    Memory memory(sizeof(Table));
    auto& table = *new (memory.map(sizeof(Table), false)) Table;
    pid_t const partner = fork();
    if (partner == 0) {
        playThere(table);
    }
    table.lock();
    for (auto _ : state) {
        table.ball = Ball::THERE;
        table.signalThere();
        while (table.ball == Ball::THERE) {
            table.waitHere();
        }
    }
    table.ball = Ball::GONE;
    table.signalThere();
    table.unlock();
    waitpid(partner, nullptr, 0);
}
BENCHMARK(pingPong<VeskTable>)
    ->UseRealTime()
    ->Name("Shared memory ping-pong of two processes (at most 1.05)/vesk");
BENCHMARK(pingPong<BareTable>)
    ->UseRealTime()
    ->Name("Shared memory ping-pong of two processes (at most 1.05)/bare");

} // namespace
