#include "support/CleanEnd.h"
#include "support/HeapUse.h"
#include "support/Testing.h"

#include <vesk/AbsTime.h>
#include <vesk/Condition.h>
#include <vesk/FileInfo.h>
#include <vesk/IPSocket.h>
#include <vesk/Mutex.h>
#include <vesk/NetDeviceMonitor.h>
#include <vesk/ProcessTNG.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/SystemLogger.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/Timer.h>
#include <vesk/UDPSocket.h>
#include <vesk/Vesk.h>

#include <sys/mman.h>

/// How much stack the calls need, and how much heap idle objects hold. docs/target.md lists the limits.

namespace {

using namespace support;
using vesk::IPSocket;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_MEASURABLE = false; // The sanitizers enlarge frames and stacks, and bring their own heap.
#else
constexpr bool IS_MEASURABLE = true;
#endif

using Body = void (*)();

void* call(void* body) {
    reinterpret_cast<Body>(body)();
    return nullptr;
}

/// A thread on a stack of the given size, which the test owns.
class PaintedThread {
public:
    PaintedThread(size_t size, Body body) : m_size(size) {
        constexpr int FLAGS = MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK;
        m_stack = static_cast<unsigned char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, FLAGS, -1, 0));
        EXPECT_NE(MAP_FAILED, m_stack);
        memset(m_stack, PAINT, size);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        EXPECT_EQ(0, pthread_attr_setstack(&attributes, m_stack, size));
        pthread_t thread;
        EXPECT_EQ(0, pthread_create(&thread, &attributes, call, reinterpret_cast<void*>(body)));
        EXPECT_EQ(0, pthread_join(thread, nullptr));
        pthread_attr_destroy(&attributes);
    }
    ~PaintedThread() { munmap(m_stack, m_size); }

    PaintedThread(PaintedThread const&) = delete;
    PaintedThread& operator=(PaintedThread const&) = delete;

    /// Returns the number of bytes below the highest one that kept its paint.
    long getUse() const {
        return static_cast<long>(
            m_size -
            static_cast<size_t>(
                std::find_if(m_stack, m_stack + m_size, [](int c) { return c != PAINT; }) - m_stack));
    }

private:
    static constexpr unsigned char PAINT = 0xa5;
    size_t m_size;
    unsigned char* m_stack = nullptr;
};

void reportFailure() {
    std::ErrorOutput("file", 1, true)(vesk::SysError, vesk::SysErrorId::OUT_OF_MEMORY, "text");
    EXPECT_TRUE(std::ErrorStorage::isError(false));
    std::ErrorStorage::ack();
}

void lock() {
    vesk::Mutex const mutex;
    EXPECT_TRUE(!mutex.lock() && !mutex.unlock());
}
void wait() {
    vesk::Mutex mutex;
    vesk::Condition condition;
    vesk::MutexLock const guard(mutex);
    long long now = 0;
    EXPECT_FALSE(vesk::Time::getTime(now));
    EXPECT_EQ(1, condition.waitTimeout(mutex, vesk::AbsTimeT(now + 1)));
}
void log() {
    vesk::SystemLogger::getInstance().log(vesk::LogLevel::NOTICE, "memory");
}

/// A kind of call, and the bytes of stack that it may need.
struct StackRow : NamedRow {
    long limit;
    Body body;
};

void ignore(vesk::Timer*) {}

StackRow const CALLS[] = {
    {"lock", 1024, lock},
    {"wait", 2048, wait},
    {"report", 4096, reportFailure},
    {"log", 8192, log},
    {"sleep", 1024, [] { EXPECT_FALSE(vesk::Time::sleep(1)); }},
    {"timer", 8192,
     [] {
         vesk::Timer timer(ignore, false);
         EXPECT_TRUE(!timer.start(60000, true) && !timer.stop());
     }},
    {"thread", 4096,
     [] {
         vesk::Thread thread([](void*) {}, nullptr, "needs");
         EXPECT_TRUE(!thread.start() && !thread.join());
     }},
    {"file", 4096,
     [] {
         vesk::StreamBinFileR file;
         char byte = 0;
         unsigned int count = 0;
         EXPECT_FALSE(file.open("/proc/self/stat", file.READ));
         EXPECT_EQ(1, file.read(&byte, 1, count));
     }},
    {"path", 8192, [] { EXPECT_TRUE(vesk::FileInfo("/proc/self", false).isValid()); }},
    {"socket", 16384,
     [] {
         vesk::UDPSocket socket(
             true, 0, 0, {IPSocket::LOOPBACK_IP, 0}, {IPSocket::LOOPBACK_IP, 9}, IPSocket::IPV4);
         socket.open();
         EXPECT_TRUE(socket.isValid());
         socket.close(false);
     }},
};

class StackNeed : public testing::TestWithParam<StackRow> {};

TEST_P(StackNeed, isBelowItsLimit) {
    constexpr size_t SIZE = (IS_MEASURABLE ? 256 : 1024) * 1024;
    long const base = PaintedThread(SIZE, [] {}).getUse();
    long const first = PaintedThread(SIZE, GetParam().body).getUse() - base;
    long const again = PaintedThread(SIZE, GetParam().body).getUse() - base;
    RecordProperty("first", static_cast<int>(first));
    printf("stack of %s: %ld bytes, then %ld\n", GetParam().what, first, again);
    if (IS_MEASURABLE) {
        EXPECT_GE(GetParam().limit, again);
    }
}
INSTANTIATE_TEST_SUITE_P(Calls, StackNeed, testing::ValuesIn(CALLS), byName);

TEST(StackNeed, threadWith16KiBLocksWaitsReportsAndLogs) {
    size_t const limit = IS_MEASURABLE ? 16384 : 1024 * 1024;
    // On 64-bit ARM and PowerPC the C library refuses a stack below 128 KiB.
    size_t const size = std::max(limit, static_cast<size_t>(PTHREAD_STACK_MIN));
    PaintedThread const thread(size, [] {
        lock();
        wait();
        reportFailure();
        log();
    });
    EXPECT_LT(thread.getUse(), static_cast<long>(limit));
}

// ---- idle objects ----

/// Creates an idle object, which the result owns.
using Object = std::shared_ptr<void>;

struct HeapRow : NamedRow {
    long limit;
    Object (*make)();
};

class Listener : public vesk::NetDeviceMonitor::Listener {};

HeapRow const OBJECTS[] = {
    {"thread", 1024, [] { return Object(std::make_shared<vesk::Thread>([](void*) {}, nullptr, "idle")); }},
    {"timer", 512, [] { return Object(std::make_shared<vesk::Timer>(ignore, false)); }},
    {"socket", 1024,
     [] {
         auto const socket = std::make_shared<vesk::UDPSocket>(
             true, 0, 0, IPSocket::IPAddress{IPSocket::LOOPBACK_IP, 0},
             IPSocket::IPAddress{IPSocket::LOOPBACK_IP, 9}, IPSocket::IPV4);
         EXPECT_TRUE(socket->isValid());
         return Object(socket);
     }},
    {"process", 2048, [] { return Object(std::make_shared<vesk::ProcessTNG>()); }},
    {"monitor", 1024,
     [] {
         static Listener s_listener;
         return Object(std::make_shared<vesk::NetDeviceMonitor>(&s_listener));
     }},
};

class HeapNeed : public testing::TestWithParam<HeapRow> {};

TEST_P(HeapNeed, ofAnIdleObjectIsBelowItsLimit) {
    vesk::Vesk const vesk(true, false);
    constexpr int COUNT = 16;
    Object const first = GetParam().make(); // Brings what all share.
    std::vector<Object> objects(COUNT);
    long long const before = g_heap_bytes;
    for (auto& object : objects) {
        object = GetParam().make();
    }
    long long const each = (g_heap_bytes - before) / COUNT;
    printf("heap of an idle %s: %lld bytes\n", GetParam().what, each);
    EXPECT_GE(GetParam().limit, each);
    EXPECT_EQ(IS_MEASURABLE, each > 0);
}
INSTANTIATE_TEST_SUITE_P(Objects, HeapNeed, testing::ValuesIn(OBJECTS), byName);

// ---- all memory locked, and little of it ----

TEST(LockedMemory, threadsTimersAndReportsWork) {
    expectInChild([] {
        EXPECT_EQ(0, mlockall(MCL_CURRENT | MCL_FUTURE)) << strerror(errno);
        for (StackRow const& row : CALLS) {
            row.body();
        }
    });
}

} // namespace
