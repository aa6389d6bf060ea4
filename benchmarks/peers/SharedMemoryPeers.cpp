#include "../SharedMemoryBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/interprocess/sync/interprocess_condition.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#endif

namespace {

#ifdef VESK_PEER_BOOST
struct BoostTable {
    using Mutex = boost::interprocess::interprocess_mutex;
    using Condition = boost::interprocess::interprocess_condition;

    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }
    void waitHere() { wait(here); }
    void waitThere() { wait(there); }
    void signalHere() { here.notify_one(); }
    void signalThere() { there.notify_one(); }
    void wait(Condition& condition) {
        boost::interprocess::scoped_lock<Mutex> held(mutex, boost::interprocess::accept_ownership);
        condition.wait(held);
        held.release();
    }

    Mutex mutex;
    Condition here;
    Condition there;
    Ball ball = Ball::HERE;
};
BENCHMARK(pingPong<BoostTable>)->UseRealTime()->Name("Shared memory ping-pong of two processes/boost");
#endif

} // namespace
