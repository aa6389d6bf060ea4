#include "../SyncBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/Condition.h>
#include <Poco/Mutex.h>
#include <Poco/RWLock.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_thread_cond.h>
#include <apr_thread_mutex.h>
#include <apr_thread_rwlock.h>
#endif

namespace {

#define PEER_PLAIN(Mutex, peer)                                                                              \
    BENCHMARK(lockAndUnlock<Mutex>)->Name("Mutex lock and unlock/" peer);                                    \
    BENCHMARK(lockAndUnlock<Mutex>)->Name("Mutex lock and unlock, contended/" peer)->Threads(2)->UseRealTime()

#define PEER_RECURSIVE(Mutex, peer)                                                                          \
    BENCHMARK(lockAndUnlock<Mutex>)->Name("Recursive mutex lock and unlock/" peer)

#define PEER_READ(Lock, peer)                                                                                \
    BENCHMARK(lockAndUnlock<Lock>)->Name("Read-write lock, read lock and unlock/" peer)

#define PEER_TABLE(Table, peer)                                                                              \
    BENCHMARK(pingPong<Table>)->UseRealTime()->Name("Condition ping-pong, one CPU/" peer);                   \
    BENCHMARK(openPingPong<Table>)                                                                           \
        ->UseRealTime()                                                                                      \
        ->Name("Condition ping-pong, signal without the mutex, one CPU/" peer)

struct VeskRecursive {
    int lock() const { return mutex.lock() ? 1 : 0; }
    int unlock() const { return mutex.unlock() ? 1 : 0; }

    vesk::Mutex mutex{true};
};
PEER_RECURSIVE(VeskRecursive, "vesk");

struct BareRecursive {
    int lock() { return pthread_mutex_lock(&mutex.raw); }
    int unlock() { return pthread_mutex_unlock(&mutex.raw); }

    BareMutex mutex{PTHREAD_MUTEX_RECURSIVE, PTHREAD_PROCESS_PRIVATE};
};
PEER_RECURSIVE(BareRecursive, "bare");

struct VeskRead {
    int lock() const { return mutex.lockForRead() ? 1 : 0; }
    int unlock() const { return mutex.unlock() ? 1 : 0; }

    vesk::RWLock mutex;
};
PEER_READ(VeskRead, "vesk");

struct BareRead {
    int lock() { return pthread_rwlock_rdlock(&raw); }
    int unlock() { return pthread_rwlock_unlock(&raw); }

    pthread_rwlock_t raw = PTHREAD_RWLOCK_INITIALIZER;
};
PEER_READ(BareRead, "bare");

PEER_TABLE(VeskTable, "vesk");

/// A plain mutex, as in the row of the mutex.
struct PlainTable : BareTable {
    void lock() { check(pthread_mutex_lock(&plain.raw)); }
    void unlock() { check(pthread_mutex_unlock(&plain.raw)); }
    void waitHere() { check(pthread_cond_wait(&here.raw, &plain.raw)); }
    void waitThere() { check(pthread_cond_wait(&there.raw, &plain.raw)); }

    BareMutex plain{PTHREAD_MUTEX_NORMAL, PTHREAD_PROCESS_PRIVATE};
};
PEER_TABLE(PlainTable, "bare");

/// A mutex of C++ that reports a failure with an exception.
template <typename Mutex>
struct ThrowingMutex {
    int lock() {
        mutex.lock();
        return 0;
    }
    int unlock() {
        mutex.unlock();
        return 0;
    }

    Mutex mutex;
};

#ifdef VESK_PEER_BOOST
PEER_PLAIN(ThrowingMutex<boost::mutex>, "boost");
PEER_RECURSIVE(ThrowingMutex<boost::recursive_mutex>, "boost");

struct BoostRead {
    int lock() {
        mutex.lock_shared();
        return 0;
    }
    int unlock() {
        mutex.unlock_shared();
        return 0;
    }

    boost::shared_mutex mutex;
};
PEER_READ(BoostRead, "boost");

struct BoostTable {
    using Lock = boost::unique_lock<boost::mutex>;

    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }
    void waitHere() { wait(here); }
    void waitThere() { wait(there); }
    void signalHere() { here.notify_one(); }
    void signalThere() { there.notify_one(); }
    void wait(boost::condition_variable& condition) {
        Lock held(mutex, boost::adopt_lock);
        condition.wait(held);
        held.release();
    }

    boost::mutex mutex;
    boost::condition_variable here;
    boost::condition_variable there;
};
PEER_TABLE(BoostTable, "boost");
#endif

#ifdef VESK_PEER_POCO
PEER_PLAIN(ThrowingMutex<Poco::FastMutex>, "poco");
PEER_RECURSIVE(ThrowingMutex<Poco::Mutex>, "poco");

struct PocoRead {
    int lock() {
        mutex.readLock();
        return 0;
    }
    int unlock() {
        mutex.unlock();
        return 0;
    }

    Poco::RWLock mutex;
};
PEER_READ(PocoRead, "poco");

struct PocoTable {
    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }
    void waitHere() { here.wait(mutex); }
    void waitThere() { there.wait(mutex); }
    void signalHere() { here.signal(); }
    void signalThere() { there.signal(); }

    Poco::FastMutex mutex;
    Poco::Condition here;
    Poco::Condition there;
};
PEER_TABLE(PocoTable, "poco");
#endif

#ifdef VESK_PEER_GLIB
struct GlibMutex {
    GlibMutex() { g_mutex_init(&raw); }
    ~GlibMutex() { g_mutex_clear(&raw); }
    int lock() {
        g_mutex_lock(&raw);
        return 0;
    }
    int unlock() {
        g_mutex_unlock(&raw);
        return 0;
    }

    GMutex raw;
};
PEER_PLAIN(GlibMutex, "glib");

struct GlibRecursive {
    GlibRecursive() { g_rec_mutex_init(&raw); }
    ~GlibRecursive() { g_rec_mutex_clear(&raw); }
    int lock() {
        g_rec_mutex_lock(&raw);
        return 0;
    }
    int unlock() {
        g_rec_mutex_unlock(&raw);
        return 0;
    }

    GRecMutex raw;
};
PEER_RECURSIVE(GlibRecursive, "glib");

struct GlibRead {
    GlibRead() { g_rw_lock_init(&raw); }
    ~GlibRead() { g_rw_lock_clear(&raw); }
    int lock() {
        g_rw_lock_reader_lock(&raw);
        return 0;
    }
    int unlock() {
        g_rw_lock_reader_unlock(&raw);
        return 0;
    }

    GRWLock raw;
};
PEER_READ(GlibRead, "glib");

struct GlibTable : GlibMutex {
    GlibTable() {
        g_cond_init(&here);
        g_cond_init(&there);
    }
    ~GlibTable() {
        g_cond_clear(&here);
        g_cond_clear(&there);
    }
    void waitHere() { g_cond_wait(&here, &raw); }
    void waitThere() { g_cond_wait(&there, &raw); }
    void signalHere() { g_cond_signal(&here); }
    void signalThere() { g_cond_signal(&there); }

    GCond here;
    GCond there;
};
PEER_TABLE(GlibTable, "glib");
#endif

#ifdef VESK_PEER_UV
template <int (*INIT)(uv_mutex_t*)>
struct UvMutex {
    UvMutex() { check(INIT(&raw)); }
    ~UvMutex() { uv_mutex_destroy(&raw); }
    int lock() {
        uv_mutex_lock(&raw);
        return 0;
    }
    int unlock() {
        uv_mutex_unlock(&raw);
        return 0;
    }

    uv_mutex_t raw;
};
PEER_PLAIN(UvMutex<uv_mutex_init>, "uv");
PEER_RECURSIVE(UvMutex<uv_mutex_init_recursive>, "uv");

struct UvRead {
    UvRead() { check(uv_rwlock_init(&raw)); }
    ~UvRead() { uv_rwlock_destroy(&raw); }
    int lock() {
        uv_rwlock_rdlock(&raw);
        return 0;
    }
    int unlock() {
        uv_rwlock_rdunlock(&raw);
        return 0;
    }

    uv_rwlock_t raw;
};
PEER_READ(UvRead, "uv");

struct UvTable : UvMutex<uv_mutex_init> {
    UvTable() { check(uv_cond_init(&here) + uv_cond_init(&there)); }
    ~UvTable() {
        uv_cond_destroy(&here);
        uv_cond_destroy(&there);
    }
    void waitHere() { uv_cond_wait(&here, &raw); }
    void waitThere() { uv_cond_wait(&there, &raw); }
    void signalHere() { uv_cond_signal(&here); }
    void signalThere() { uv_cond_signal(&there); }

    uv_cond_t here;
    uv_cond_t there;
};
PEER_TABLE(UvTable, "uv");
#endif

#ifdef VESK_PEER_APR
template <unsigned int FLAGS>
struct AprMutex {
    AprMutex() { check(apr_thread_mutex_create(&raw, FLAGS, pool.raw)); }
    int lock() { return apr_thread_mutex_lock(raw); }
    int unlock() { return apr_thread_mutex_unlock(raw); }

    AprPool pool;
    apr_thread_mutex_t* raw = nullptr;
};
PEER_PLAIN(AprMutex<APR_THREAD_MUTEX_UNNESTED>, "apr");
PEER_RECURSIVE(AprMutex<APR_THREAD_MUTEX_NESTED>, "apr");

struct AprRead {
    AprRead() { check(apr_thread_rwlock_create(&raw, pool.raw)); }
    int lock() { return apr_thread_rwlock_rdlock(raw); }
    int unlock() { return apr_thread_rwlock_unlock(raw); }

    AprPool pool;
    apr_thread_rwlock_t* raw = nullptr;
};
PEER_READ(AprRead, "apr");

struct AprTable {
    AprTable() {
        check(apr_thread_cond_create(&here, mutex.pool.raw));
        check(apr_thread_cond_create(&there, mutex.pool.raw));
    }
    void lock() { check(mutex.lock()); }
    void unlock() { check(mutex.unlock()); }
    void waitHere() { check(apr_thread_cond_wait(here, mutex.raw)); }
    void waitThere() { check(apr_thread_cond_wait(there, mutex.raw)); }
    void signalHere() { check(apr_thread_cond_signal(here)); }
    void signalThere() { check(apr_thread_cond_signal(there)); }

    AprMutex<APR_THREAD_MUTEX_UNNESTED> mutex;
    apr_thread_cond_t* here = nullptr;
    apr_thread_cond_t* there = nullptr;
};
PEER_TABLE(AprTable, "apr");
#endif

} // namespace
