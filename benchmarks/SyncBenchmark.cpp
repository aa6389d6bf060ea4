#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/RWLock.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/ShmMutex.h>
#include <vesk/SpinLock.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace {

void check(int error) {
    if (error != 0) {
        abort();
    }
}

/// Memory that processes could share, the same for both twins.
template <typename T>
class SharedMemory {
public:
    SharedMemory()
        : m_memory(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        check(m_memory == MAP_FAILED ? 1 : 0);
    }
    ~SharedMemory() { munmap(m_memory, sizeof(T)); }
    SharedMemory(SharedMemory const&) = delete;
    SharedMemory& operator=(SharedMemory const&) = delete;

    void* get() const { return m_memory; }

private:
    void* m_memory;
};

class BareMutex {
public:
    BareMutex(int type, int shared) {
        pthread_mutexattr_t attributes;
        check(pthread_mutexattr_init(&attributes));
        check(pthread_mutexattr_settype(&attributes, type));
        check(pthread_mutexattr_setpshared(&attributes, shared));
        check(pthread_mutex_init(&raw, &attributes));
        check(pthread_mutexattr_destroy(&attributes));
    }
    ~BareMutex() { pthread_mutex_destroy(&raw); }
    BareMutex(BareMutex const&) = delete;
    BareMutex& operator=(BareMutex const&) = delete;

    pthread_mutex_t raw;
};

class BareCondition {
public:
    BareCondition() {
        pthread_condattr_t attributes;
        check(pthread_condattr_init(&attributes));
        check(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC));
        check(pthread_cond_init(&raw, &attributes));
        check(pthread_condattr_destroy(&attributes));
    }
    ~BareCondition() { pthread_cond_destroy(&raw); }
    BareCondition(BareCondition const&) = delete;
    BareCondition& operator=(BareCondition const&) = delete;

    pthread_cond_t raw;
};

// ---- uncontended locks ----
// Both twins check every result, as a caller must.

// The twin of `Mutex` is a plain mutex, which does not check its owner.

struct VeskMutex {
    int lock() const { return mutex.lock() ? 1 : 0; }
    int unlock() const { return mutex.unlock() ? 1 : 0; }

    vesk::Mutex mutex;
};

struct PlainMutex {
    int lock() { return pthread_mutex_lock(&mutex.raw); }
    int unlock() { return pthread_mutex_unlock(&mutex.raw); }

    BareMutex mutex{PTHREAD_MUTEX_NORMAL, PTHREAD_PROCESS_PRIVATE};
};

/// All threads of the row lock the same mutex.
template <typename Mutex>
void lockAndUnlock(benchmark::State& state) {
    static Mutex mutex;
    for (auto _ : state) {
        check(mutex.lock());
        benchmark::ClobberMemory();
        check(mutex.unlock());
    }
}
BENCHMARK(lockAndUnlock<VeskMutex>)->Name("Mutex lock and unlock (at most 0.95)/vesk");
BENCHMARK(lockAndUnlock<PlainMutex>)->Name("Mutex lock and unlock (at most 0.95)/bare");
BENCHMARK(lockAndUnlock<VeskMutex>)
    ->Name("Mutex lock and unlock, contended (at most 0.85)/vesk")
    ->Threads(2)
    ->UseRealTime();
BENCHMARK(lockAndUnlock<PlainMutex>)
    ->Name("Mutex lock and unlock, contended (at most 0.85)/bare")
    ->Threads(2)
    ->UseRealTime();

void shmMutexVesk(benchmark::State& state) {
    SharedMemory<vesk::ShmMutex> const memory;
    auto* const mutex = new (memory.get()) vesk::ShmMutex;
    for (auto _ : state) {
        check(mutex->lock() ? 1 : 0);
        benchmark::ClobberMemory();
        check(mutex->unlock() ? 1 : 0);
    }
    mutex->~ShmMutex();
}
BENCHMARK(shmMutexVesk)->Name("ShmMutex lock and unlock (at most 1.05)/vesk");

void shmMutexBare(benchmark::State& state) {
    SharedMemory<BareMutex> const memory;
    auto* const mutex = new (memory.get()) BareMutex(PTHREAD_MUTEX_DEFAULT, PTHREAD_PROCESS_SHARED);
    for (auto _ : state) {
        check(pthread_mutex_lock(&mutex->raw));
        benchmark::ClobberMemory();
        check(pthread_mutex_unlock(&mutex->raw));
    }
    mutex->~BareMutex();
}
BENCHMARK(shmMutexBare)->Name("ShmMutex lock and unlock (at most 1.05)/bare");

void rwLockVesk(benchmark::State& state) {
    vesk::RWLock const lock;
    for (auto _ : state) {
        check(lock.lockForRead() ? 1 : 0);
        benchmark::ClobberMemory();
        check(lock.unlock() ? 1 : 0);
    }
}
BENCHMARK(rwLockVesk)->Name("RWLock read lock and unlock/vesk");

void rwLockBare(benchmark::State& state) {
    pthread_rwlock_t lock;
    check(pthread_rwlock_init(&lock, nullptr));
    for (auto _ : state) {
        check(pthread_rwlock_rdlock(&lock));
        benchmark::ClobberMemory();
        check(pthread_rwlock_unlock(&lock));
    }
    check(pthread_rwlock_destroy(&lock));
}
BENCHMARK(rwLockBare)->Name("RWLock read lock and unlock/bare");

void spinLockVesk(benchmark::State& state) {
    vesk::SpinLock const lock;
    for (auto _ : state) {
        check(lock.lock() ? 1 : 0);
        benchmark::ClobberMemory();
        check(lock.unlock() ? 1 : 0);
    }
}
BENCHMARK(spinLockVesk)->Name("SpinLock lock and unlock/vesk");

void spinLockBare(benchmark::State& state) {
    pthread_spinlock_t lock;
    check(pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE));
    for (auto _ : state) {
        check(pthread_spin_lock(&lock));
        benchmark::ClobberMemory();
        check(pthread_spin_unlock(&lock));
    }
    check(pthread_spin_destroy(&lock));
}
BENCHMARK(spinLockBare)->Name("SpinLock lock and unlock/bare");

// ---- ping-pong ----

/// Binds the calling thread, and the threads that it starts during the lifetime of the object, to one
/// processor. Each hand-over is then exactly one context switch, and its time does not depend on where the
/// scheduler places the threads.
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

/// One iteration is a hand-over to the partner and back. `Table` has a lock, a condition for each direction,
/// and the calls of one of the twins.
template <typename Table>
void pingPong(benchmark::State& state) {
    OneProcessor const one_processor;
    Table table;
    Ball ball = Ball::HERE;
    std::thread partner([&] {
        table.lock();
        for (;;) {
            while (ball == Ball::HERE) {
                table.waitThere();
            }
            if (ball == Ball::GONE) {
                break;
            }
            ball = Ball::HERE;
            table.signalHere();
        }
        table.unlock();
    });
    table.lock();
    for (auto _ : state) {
        ball = Ball::THERE;
        table.signalThere();
        while (ball == Ball::THERE) {
            table.waitHere();
        }
    }
    ball = Ball::GONE;
    table.signalThere();
    table.unlock();
    partner.join();
}

/// Like `pingPong`, but signals without the mutex: the partner that a signal wakes preempts the signaling thread
/// inside it, and waits again on the same condition.
template <typename Table>
void openPingPong(benchmark::State& state) {
    OneProcessor const one_processor;
    Table table;
    Ball ball = Ball::HERE;
    std::thread partner([&] {
        for (;;) {
            table.lock();
            while (ball == Ball::HERE) {
                table.waitThere();
            }
            bool const is_end = ball == Ball::GONE;
            ball = Ball::HERE;
            table.unlock();
            if (is_end) {
                break;
            }
            table.signalHere();
        }
    });
    auto const throwBall = [&](Ball to) {
        table.lock();
        ball = to;
        table.unlock();
        table.signalThere();
    };
    for (auto _ : state) {
        throwBall(Ball::THERE);
        table.lock();
        while (ball == Ball::THERE) {
            table.waitHere();
        }
        table.unlock();
    }
    throwBall(Ball::GONE);
    partner.join();
}

struct VeskTable {
    void lock() { check(mutex.lock() ? 1 : 0); }
    void unlock() { check(mutex.unlock() ? 1 : 0); }
    void waitHere() { check(here.wait(mutex) ? 1 : 0); }
    void waitThere() { check(there.wait(mutex) ? 1 : 0); }
    void signalHere() { check(here.signal() ? 1 : 0); }
    void signalThere() { check(there.signal() ? 1 : 0); }

    vesk::Mutex mutex;
    vesk::Condition here;
    vesk::Condition there;
};
BENCHMARK(pingPong<VeskTable>)->UseRealTime()->Name("Condition ping-pong (at most 1.05)/vesk");

struct BareTable {
    void lock() { check(pthread_mutex_lock(&mutex.raw)); }
    void unlock() { check(pthread_mutex_unlock(&mutex.raw)); }
    void waitHere() { check(pthread_cond_wait(&here.raw, &mutex.raw)); }
    void waitThere() { check(pthread_cond_wait(&there.raw, &mutex.raw)); }
    void signalHere() { check(pthread_cond_signal(&here.raw)); }
    void signalThere() { check(pthread_cond_signal(&there.raw)); }

    BareMutex mutex{PTHREAD_MUTEX_ERRORCHECK, PTHREAD_PROCESS_PRIVATE};
    BareCondition here;
    BareCondition there;
};
BENCHMARK(pingPong<BareTable>)->UseRealTime()->Name("Condition ping-pong (at most 1.05)/bare");

BENCHMARK(openPingPong<VeskTable>)
    ->UseRealTime()
    ->Name("Condition ping-pong, signal without the mutex (at most 1.05)/vesk");
BENCHMARK(openPingPong<BareTable>)
    ->UseRealTime()
    ->Name("Condition ping-pong, signal without the mutex (at most 1.05)/bare");

// ---- semaphores ----

void semaphoreVesk(benchmark::State& state) {
    vesk::SemaphoreCreator semaphore;
    semaphore.setUnlinkOnClose(true);
    std::string const name = "vesk-bench-" + std::to_string(getpid());
    check(semaphore.create(name.c_str(), 1, vesk::Creatable::REPLACE) ? 1 : 0);
    for (auto _ : state) {
        check(semaphore.take() ? 1 : 0);
        check(semaphore.release() ? 1 : 0);
    }
}
BENCHMARK(semaphoreVesk)->Name("Semaphore take and release (at most 1.05)/vesk");

void semaphoreBare(benchmark::State& state) {
    std::string const name = "/vesk-bench-bare-" + std::to_string(getpid());
    sem_t* const semaphore = sem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 1);
    check(semaphore == SEM_FAILED ? 1 : 0);
    check(sem_unlink(name.c_str()));
    for (auto _ : state) {
        check(sem_wait(semaphore));
        check(sem_post(semaphore));
    }
    sem_close(semaphore);
}
BENCHMARK(semaphoreBare)->Name("Semaphore take and release (at most 1.05)/bare");

} // namespace
