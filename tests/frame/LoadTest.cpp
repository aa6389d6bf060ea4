#include "Operations.h"
#include "support/CleanEnd.h"
#include "support/Descriptors.h"
#include "support/Emulation.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"
#include "support/Testing.h"
#include "support/Threads.h"
#include "threads/SchedSupport.h"

#include <array>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <sys/mman.h>
#include <sys/resource.h>

/// What callers get when there is very much of everything, and when the system gives nothing more. Each test runs in a
/// process of its own, whose limits it changes.

namespace {

using namespace support;
using operations::Row;
namespace SysErrorId = vesk::SysErrorId;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif

// A sanitizer keeps much for each thread, and the emulator a thread of its own.
constexpr int THREADS = IS_SANITIZED || IS_SLOW ? 100 : 1'000;
constexpr int TIMERS = IS_SLOW ? 1'000 : 10'000;
constexpr int DESCRIPTORS = 10'000;

/// The soft limit of a resource during a scope. The hard limit stays, or is raised if the process may do that.
class Limit {
public:
    Limit(int resource, rlim_t soft) : m_resource(resource) {
        EXPECT_EQ(0, get(m_before));
        rlimit const limit{soft, std::max(soft, m_before.rlim_max)};
        m_set = set(limit) == 0;
    }
    ~Limit() { lift(); }
    Limit(Limit const&) = delete;
    Limit& operator=(Limit const&) = delete;

    bool isSet() const { return m_set; }
    void lift() {
        if (m_set) {
            EXPECT_EQ(0, set({m_before.rlim_cur, getHard()}));
            m_set = false;
        }
    }

private:
    // glibc declares an enumeration for the resource, but only for C++.
    int get(rlimit& limit) const { return getrlimit(static_cast<__rlimit_resource>(m_resource), &limit); }
    int set(rlimit const& limit) const {
        return setrlimit(static_cast<__rlimit_resource>(m_resource), &limit);
    }
    rlim_t getHard() const {
        rlimit now{};
        EXPECT_EQ(0, get(now));
        return now.rlim_max;
    }

    int m_resource;
    rlimit m_before{};
    bool m_set = false;
};

/// Runs an operation. Returns how it tells that it has failed, or an empty text:
/// R  with a chain of reports, F  without a report, T  with `std::bad_alloc`, E  with an event, P  with a chain and
/// success, 2  more than once
std::string tell(Row const& row) {
    EventRecorder const events;
    std::string letters;
    try {
        letters = row.run() ? "F" : "";
    } catch (std::bad_alloc const&) {
        letters = "T";
    }
    if (std::ErrorStorage::isError(true)) {
        letters = letters == "F" ? "R" : "P";
        std::ErrorStorage::ack();
    }
    if (events.getCount() != 0) {
        letters = events.getCount() == 1 && letters.size() <= 1 && letters != "R" ? "E" : "2";
    }
    return letters.empty() ? "" : " " + std::string(row.name) + ":" + letters;
}

/// Runs all operations. Returns those that have failed.
std::string tellAll(std::set<std::string> const& without = {}) {
    std::string failed;
    for (Row const& row : operations::getRows()) {
        if (without.count(row.name) == 0) {
            failed += tell(row);
        }
    }
    return failed;
}

/// Prepares the operations. Returns those that fail because the process may not do them, such as raw sockets.
std::string setUp() {
    EXPECT_EQ(0, chdir("/"));
    operations::setUp();
    std::string denied = tellAll();
    EXPECT_TRUE(geteuid() != 0 || denied.empty()) << denied;
    return denied;
}

class Load : public testing::Test {
protected:
    static void TearDownTestSuite() { operations::removeNames(); }
};

// ---- Very much of everything ----

/// Opens descriptors until this number is reached. Returns false if the limit cannot be raised.
bool openMany(int descriptors) {
    static Limit const s_limit(RLIMIT_NOFILE, static_cast<rlim_t>(descriptors) + 1'000);
    if (!s_limit.isSet()) {
        return false;
    }
    int fd = -1;
    do {
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    } while (fd >= 0 && fd < descriptors - 1);
    return fd >= 0;
}

TEST_F(Load, withTenThousandDescriptorsOpenAllOperationsWork) {
    expectInChild([] {
        std::string const denied = setUp();
        ASSERT_TRUE(openMany(DESCRIPTORS));
        EXPECT_EQ(denied, tellAll());
        // Made anew with high descriptors.
        operations::g_timer.reset();
        std::atomic<bool> caught{false};
        vesk::SignalCatcher const catcher(
            SIGUSR1, [](int, void* flag) { *static_cast<std::atomic<bool>*>(flag) = true; }, &caught);
        raise(SIGUSR1);
        EXPECT_TRUE(eventually([&] { return caught.load(); }));
        static std::atomic<bool> s_rung{false};
        vesk::Timer timer([](vesk::Timer*) { s_rung = true; }, true);
        ASSERT_FALSE(timer.start(1, false));
        EXPECT_TRUE(eventually([] { return s_rung.load(); }));
    });
}

TEST_F(Load, pollerServesTenThousandDescriptors) {
    struct Reader : vesk::Poller::Client {
        int poll_events(int) override { return POLLIN; }
        void read(int fd) override {
            char byte = 0;
            EXPECT_EQ(1, ::read(fd, &byte, 1));
            ++reads[fd];
        }
        void error(int) override { ADD_FAILURE(); }
        std::map<int, int> reads;
    };
    expectInChild([] {
        Limit const limit(RLIMIT_NOFILE, DESCRIPTORS + 1'000);
        ASSERT_TRUE(limit.isSet());
        vesk::Poller poller;
        Reader reader;
        std::vector<int> writers;
        for (int i = 0; i < DESCRIPTORS / 2; ++i) {
            int ends[2];
            ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
            poller.add(reader, ends[0]);
            writers.push_back(ends[1]);
        }
        for (int const writer : writers) {
            ASSERT_EQ(1, write(writer, "b", 1));
        }
        while (reader.reads.size() < writers.size()) {
            ASSERT_FALSE(poller.poll());
        }
        for (auto const& [fd, reads] : reader.reads) {
            EXPECT_EQ(1, reads) << fd;
        }
    });
}

TEST_F(Load, setForSelectIsNotWrittenBeyondItsEnd) {
    expectInChild([] {
        ASSERT_TRUE(openMany(FD_SETSIZE));
        EventRecorder const events;
        vesk::SignalQueueImpl::SelfPipe const pipe;
        ASSERT_GE(pipe.getReadEnd(), FD_SETSIZE);
        std::array<fd_set, 2> sets{};
        int highest = 0;
        pipe.set(&sets[0], highest);
        EXPECT_FALSE(pipe.is_set(&sets[0]));
        EXPECT_EQ(0, highest);
        std::array<fd_set, 2> const empty{};
        EXPECT_EQ(0, memcmp(&empty, &sets, sizeof sets));
        EXPECT_EQ(
            "ASSERT framework/src/vesk/SignalQueueImpl-posix set: read_end<FD_SETSIZE", events.getText());
    });
}

/// Lets threads meet: each waits until all of them have come.
struct Meeting {
    static void come(void* meeting) {
        auto& self = *static_cast<Meeting*>(meeting);
        vesk::MutexLock const lock(self.mutex);
        ++self.count;
        while (self.count < self.wanted) {
            EXPECT_FALSE(self.all_here.wait(self.mutex));
        }
        EXPECT_FALSE(self.all_here.signal()); // Each wakes the next one.
    }

    int wanted;
    int count = 0;
    vesk::Mutex mutex{};
    vesk::Condition all_here{};
};

/// Makes stacks small enough for a 32-bit address space.
void setSmallStacks() {
    if constexpr (sizeof(void*) > 4) {
        return;
    }
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, size_t{512} * 1024));
    ASSERT_EQ(0, pthread_setattr_default_np(&attributes));
    ASSERT_EQ(0, pthread_attr_destroy(&attributes));
}

TEST_F(Load, aThousandThreadsExistAtOnce) {
    expectInChild([] {
        setSmallStacks();
        int const before = countThreads();
        Meeting meeting{THREADS};
        std::deque<vesk::Thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            vesk::Thread const& thread = threads.emplace_back(Meeting::come, &meeting, "load");
            ASSERT_TRUE(thread.isValid()) << i << tarn_error.getReasonList();
        }
        EXPECT_LE(before + THREADS, countThreads());
        for (vesk::Thread& thread : threads) {
            ASSERT_FALSE(thread.start());
        }
        for (vesk::Thread& thread : threads) {
            ASSERT_FALSE(thread.join());
        }
        EXPECT_EQ(THREADS, meeting.count);
        // A sanitizer starts a thread of its own with the first one.
        EXPECT_TRUE(eventually([before] { return countThreads() <= before + IS_SANITIZED; }));
    });
}

TEST_F(Load, tenThousandTimersRingAndNoneThatWasStopped) {
    static std::atomic<int> s_rung{0};
    static std::atomic<int> s_wrong{0};
    expectInChild([] {
        int const descriptors = countDescriptors();
        std::deque<vesk::Timer> timers;
        for (unsigned int i = 0; i < TIMERS; ++i) {
            ASSERT_FALSE(
                timers.emplace_back([](vesk::Timer*) { ++s_rung; }, i % 2 != 0).start(1 + i % 100, false));
        }
        std::deque<vesk::Timer> stopped;
        for (int i = 0; i < TIMERS; ++i) {
            vesk::Timer& timer = stopped.emplace_back([](vesk::Timer*) { ++s_wrong; }, false);
            ASSERT_FALSE(timer.start(60'000, false));
            ASSERT_FALSE(timer.stop());
        }
        EXPECT_TRUE(eventually([] { return s_rung == TIMERS; })) << s_rung;
        stopped.clear();
        timers.clear();
        EXPECT_EQ(TIMERS, s_rung) << "each once";
        EXPECT_EQ(0, s_wrong);
        EXPECT_EQ(descriptors, countDescriptors());
    });
}

// ---- One processor ----

TEST_F(Load, onOneProcessorAllOperationsWork) {
    expectInChild([] {
        std::string const denied = setUp();
        ASSERT_TRUE(useOneProcessor());
        EXPECT_EQ(denied, tellAll());
    });
}

TEST_F(Load, onOneProcessorLocksAreHandedOver) {
    constexpr int THREADS_HERE = 4;
    constexpr int ROUNDS = IS_SLOW || IS_SANITIZED ? 500 : 20'000;
    expectInChild([] {
        ASSERT_TRUE(useOneProcessor());
        vesk::Mutex mutex;
        vesk::SpinLock spin;
        vesk::RWLock rw;
        std::array<int, 3> counts{};
        runInThreads(THREADS_HERE, [&](int) {
            for (int i = 0; i < ROUNDS; ++i) {
                // A thread that loses the processor while it holds a lock makes the others wait.
                auto const add = [i](int& count, int period) {
                    ++count;
                    if (i % period == 0) {
                        sched_yield();
                    }
                };
                mutex.lock();
                add(counts[0], 10);
                mutex.unlock();
                spin.lock();
                add(counts[1], 1'000); // The others use up their time slices.
                spin.unlock();
                rw.lockForWrite();
                add(counts[2], 10);
                rw.unlock();
            }
        });
        for (int const count : counts) {
            EXPECT_EQ(THREADS_HERE * ROUNDS, count);
        }
    });
}

/// A dispatcher with a thread and a queue of its own.
struct Service {
    Service() {
        dispatcher.add_source(queue);
        EXPECT_FALSE(thread.start());
    }
    ~Service() {
        dispatcher.stop();
        EXPECT_FALSE(thread.join());
    }
    static void run(void* service) { static_cast<Service*>(service)->dispatcher.run(); }

    vesk::Dispatcher::VanillaNotifier notifier;
    vesk::Dispatcher::VanillaQueue queue{notifier};
    vesk::Dispatcher dispatcher{notifier};
    vesk::Thread thread{run, this, "load"};
};

/// A ball that two services pass to each other.
struct Ball {
    static void pass(void* ball) {
        auto& self = *static_cast<Ball*>(ball);
        int const left = --self.passes;
        if (left > 0) {
            self.services[static_cast<size_t>(left % 2)].queue.push(new vesk::Message::Callback(pass, ball));
        }
    }

    std::atomic<int> passes;
    std::array<Service, 2> services;
};

TEST_F(Load, onOneProcessorDispatchersAndTimersGoOnBesideABusyThread) {
    static std::atomic<int> s_rung{0};
    expectInChild([] {
        ASSERT_TRUE(useOneProcessor());
        std::atomic<bool> busy{true};
        std::thread spinner([&] {
            while (busy) {}
        });
        {
            Ball ball{{IS_SLOW ? 20 : 200}, {}};
            ball.services[0].queue.push(new vesk::Message::Callback(Ball::pass, &ball));
            vesk::Timer timer([](vesk::Timer*) { ++s_rung; }, false);
            EXPECT_FALSE(timer.start(1, true));
            EXPECT_TRUE(eventually([&] { return ball.passes <= 0; })) << ball.passes;
            EXPECT_TRUE(eventually([] { return s_rung >= 10; })) << s_rung;
        }
        busy = false;
        spinner.join();
    });
}

// ---- No more of something ----

/// Uses up all descriptors.
void useAllDescriptors() {
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {}
    EXPECT_EQ(EMFILE, errno);
}

// The rows with F and P are look-ups that find nothing, as documented. That of `SerialPort` opens a terminal itself.
constexpr char const* TOLD_WITHOUT_DESCRIPTOR =
    " FileInfo_getOwner:F FileSys_getMountPoints:F FileSys_copy:R Directory:R Directory_curDir:R "
    "StreamBinFileR:R "
    "StreamBinFileRW:R SecureRandom:R SerialPort:F MemBinFileBase:R BinTempFileRW:R FmtFileWrapper:R "
    "SharedMemory:R "
    "SharedMemory_ring:R MsgQueue:R MsgQueue_systemMax:F SemaphoreClient:R Semaphore:R NetDevice:R "
    "NetDevice_setAddress:R NetDevice_all:R NetDeviceMonitor_watch:R User_id2name:F User_name2id:F "
    "Group_id2name:F "
    "User_getId:F Group_getName:F ProcessInfo:R ProcessInfo_getPIDs:R SystemLoad:R ProcessTNG_getProcessId:P "
    "IPResolver_resolveIP:R TCPSocket:R UDPSocket:R UnixSocket:R";

// Without a pipe for their threads these end the process, as their documentation says.
std::set<std::string> const NEED_A_PIPE{
    "Poller", "SignalQueue_pop", "SignalDispatcher", "Timer", "Alarm_ofOwnEngine"};

TEST_F(Load, withoutADescriptorOperationsTellItOnceAndWorkAgainLater) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the undefined-behavior sanitizer needs a pipe to look at an object";
#endif
    expectInChild([] {
        std::string const denied = setUp();
        {
            Limit const limit(RLIMIT_NOFILE, 64);
            int const first = dup(STDIN_FILENO);
            useAllDescriptors();
            EXPECT_EQ(TOLD_WITHOUT_DESCRIPTOR, tellAll(NEED_A_PIPE));
            EXPECT_EQ(-1, dup(STDIN_FILENO)) << "one was closed that was not opened";
            for (int fd = first; fd < 64; ++fd) {
                close(fd);
            }
        }
        EXPECT_EQ(denied, tellAll());
    });
}

TEST_F(Load, withoutAThreadOrAProcessTheirCreationFails) {
    VESK_SKIP_UNLESS_ROOT();
    expectInChild([] {
        vesk::Vesk const vesk(true, false);
        ASSERT_TRUE(dropRights());
        vesk::ProcessTNG process("/bin/true", {});
        {
            Limit const limit(RLIMIT_NPROC, 0);
            {
                vesk::Thread const thread([](void*) {}, nullptr);
                EXPECT_FALSE(thread.isValid());
                EXPECT_TRUE(
                    chainIs({{SysErrorId::RESOURCES_EXHAUSTED}, {vesk::Thread::ErrorId::CREATE_FAILED}}));
            }
            EXPECT_EQ(-1, process.start());
            EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, EAGAIN));
            {
                vesk::Timer const timer([](vesk::Timer*) {}, false);
                EXPECT_TRUE(chainIs(
                    {{SysErrorId::RESOURCES_EXHAUSTED},
                     {vesk::Thread::ErrorId::CREATE_FAILED},
                     {std::CommonErrorId::CONTRACT_BROKEN}}));
            }
        }
        Meeting meeting{1};
        vesk::Thread thread(Meeting::come, &meeting);
        ASSERT_FALSE(thread.start() || thread.join());
        EXPECT_EQ(1, meeting.count);
        EXPECT_GT(process.start(), 0);
        EXPECT_FALSE(process.wait(operations::g_state, false, 0));
    });
}

/// Returns the memory of the process in bytes.
rlim_t getMemory(char const* line) {
    std::ifstream file("/proc/self/status");
    std::string text;
    while (getline(file, text)) {
        if (text.rfind(line, 0) == 0) {
            return strtoul(text.c_str() + strlen(line), nullptr, 10) * 1024;
        }
    }
    ADD_FAILURE() << line;
    return 0;
}

class LoadOfMemory : public Load {
protected:
    void SetUp() override {
        if (IS_SANITIZED || IS_EMULATED) {
            GTEST_SKIP() << "sanitizers and the emulator reserve address space of their own";
        }
    }

    static constexpr unsigned int MUCH = 256 << 20;

    /// Checks that what needs much memory fails under a limit, and works without it.
    static void run(int resource, char const* line, bool limits_shared) {
        TempFolder const folder;
        vesk::Vesk const vesk(true, false);
        {
            Limit const limit(resource, getMemory(line) + (4 << 20));
            ASSERT_TRUE(limit.isSet());
            expectNoThread();
            EXPECT_EQ(limits_shared, map());
            EXPECT_TRUE(!limits_shared || isHead(SysErrorId::OUT_OF_MEMORY));
            expectNoBuffer();
            EXPECT_TRUE(copy(folder / "copy"));
            EXPECT_TRUE(isHead(std::CommonErrorId::OUT_OF_MEMORY));
        }
        unlink((folder / "copy").c_str());
        Meeting meeting{1};
        vesk::Thread thread(Meeting::come, &meeting);
        EXPECT_FALSE(thread.start() || thread.join() || map() || copy(folder / "copy"));
        EXPECT_TRUE(chainIs({}));
    }

private:
    /// Returns whether the pending chain ends with a report. Acknowledges the chain.
    template <typename Id>
    static bool isHead(Id id) {
        bool const is = std::ErrorStorage::is(id);
        std::ErrorStorage::ack();
        return is;
    }

    static bool map() {
        vesk::detail::UniqueFd const file(memfd_create("load", MFD_CLOEXEC));
        EXPECT_EQ(0, ftruncate(file.get(), MUCH));
        vesk::MemMapping mapping(file.get(), vesk::MemMapping::READ, MUCH);
        return !mapping.isValid() || mapping.destroy();
    }

    static bool copy(std::string const& path) {
        return vesk::FileSys::copy(
            vesk::UnicodeString("/proc/self/comm"), vesk::UnicodeString(path), MUCH, nullptr);
    }

    static void expectNoThread() {
        // A stack has 8 MiB. The C library may have kept one.
        vesk::Thread const first([](void*) {}, nullptr);
        std::ErrorStorage::ack();
        vesk::Thread const thread([](void*) {}, nullptr);
        EXPECT_FALSE(thread.isValid());
        EXPECT_TRUE(chainIs({{SysErrorId::RESOURCES_EXHAUSTED}, {vesk::Thread::ErrorId::CREATE_FAILED}}));
    }

    static void expectNoBuffer() {
        EXPECT_FALSE(std::Buf(MUCH).isValid());
        EXPECT_TRUE(isHead(std::CommonErrorId::OUT_OF_MEMORY));
        vesk::StreamBinFileW stream(MUCH);
        EXPECT_TRUE(isHead(std::CommonErrorId::OUT_OF_MEMORY));
        EXPECT_TRUE(stream.open("/dev/null", vesk::BinFileBase::WRITE));
        EXPECT_TRUE(isHead(std::CommonErrorId::CONTRACT_BROKEN));
    }
};

TEST_F(LoadOfMemory, withoutAddressSpaceIsReported) {
    expectInChild([] { run(RLIMIT_AS, "VmSize:", true); });
}

TEST_F(LoadOfMemory, withoutPrivateMemoryIsReported) {
    expectInChild([] { run(RLIMIT_DATA, "VmData:", false); });
}

TEST_F(Load, withoutAQueuedSignalATimerDoesNotRingAndCatchersWork) {
    expectInChild([] {
        Limit const limit(RLIMIT_SIGPENDING, 0);
        ASSERT_TRUE(limit.isSet());
        EventRecorder const events;
        {
            vesk::Timer timer([](vesk::Timer*) { ADD_FAILURE() << "rung"; }, false);
            EXPECT_FALSE(timer.start(1, true));
            EXPECT_FALSE(timer.stop());
        }
        EXPECT_EQ("", events.getText());
        std::atomic<int> caught{0};
        vesk::SignalCatcher const catcher(
            SIGUSR1, [](int, void* count) { ++*static_cast<std::atomic<int>*>(count); }, &caught);
        raise(SIGUSR1);
        EXPECT_TRUE(eventually([&] { return caught == 1; }));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(Load, withoutMemoryForMessageQueuesTheirCreationFails) {
    expectInChild([] {
        auto const create = [] {
            vesk::MsgQueueServer server;
            server.setUnlinkOnClose(true);
            return server.create(operations::getName("limit").c_str(), 8, 2, vesk::Creatable::REPLACE);
        };
        {
            Limit const limit(RLIMIT_MSGQUEUE, 0);
            EXPECT_TRUE(create());
            EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, EMFILE));
        }
        EXPECT_FALSE(create());
        EXPECT_TRUE(chainIs({}));
    });
}

/// Writes a text to a new file with a buffer, and closes the file. Returns how many bytes were accepted.
unsigned int writeTo(std::string const& path, std::string const& text, bool& closing_failed) {
    vesk::StreamBinFileW file(1'000);
    EXPECT_FALSE(file.open(path.c_str(), vesk::BinFileBase::CREATE | vesk::BinFileBase::WRITE));
    unsigned int written = 0;
    int const result = file.write(text.data(), static_cast<unsigned int>(text.size()), written);
    EXPECT_EQ(result != 1, written != text.size());
    EXPECT_EQ(result != 1, file.hadError());
    closing_failed = file.close();
    return written;
}

TEST_F(Load, beyondTheLargestFileAWriteFailsAndTheFileKeepsWhatFits) {
    expectInChild([] {
        TempFolder const folder;
        std::string const path = folder / "file";
        signal(SIGXFSZ, SIG_IGN);
        Limit const limit(RLIMIT_FSIZE, 4'096);
        bool closing_failed = false;
        EXPECT_EQ(4'096U, writeTo(path, std::string(8'192, 'x'), closing_failed));
        EXPECT_TRUE(std::ErrorStorage::is(std::IBinStreamBase::TRANSFER_FAILED));
        std::ErrorStorage::ack();
        EXPECT_FALSE(closing_failed);
        EXPECT_EQ(4'096U, std::filesystem::file_size(path));
        // What is in the buffer is lost when the file is closed, and this is told.
        vesk::StreamBinFileW file(1'000);
        ASSERT_FALSE(file.open(path.c_str(), vesk::BinFileBase::WRITE | vesk::BinFileBase::APPEND));
        unsigned int written = 0;
        EXPECT_EQ(1, file.write("y", 1, written));
        EXPECT_TRUE(file.close());
        EXPECT_TRUE(std::ErrorStorage::is(std::IBinStreamBase::TRANSFER_FAILED));
        std::ErrorStorage::ack();
        EXPECT_EQ(4'096U, std::filesystem::file_size(path));
    });
}

TEST_F(Load, beyondTheLargestFileTheSystemEndsAProcessThatDoesNotIgnoreTheSignal) {
    TempFolder const folder;
    ChildEnd const end = runInChild([&folder] {
        Limit const limit(RLIMIT_FSIZE, 4'096);
        bool closing_failed = false;
        writeTo(folder / "file", std::string(8'192, 'x'), closing_failed);
    });
    EXPECT_EQ(SIGXFSZ, end.signal) << end.output << end.errors;
    EXPECT_EQ(4'096U, std::filesystem::file_size(folder / "file"));
}

class LoadOfDisk : public Load {
protected:
    /// Runs `body` in a child in which this folder is a full file system of 64 KiB. One page is free.
    template <typename Body>
    static void run(std::string const& folder, Body const& body) {
        VESK_SKIP_WITHOUT_MOUNTS();
        expectInChild([&] {
            ASSERT_TRUE(separateMounts() && mountMemory(folder, "size=64k"));
            std::ofstream(folder + "/filler") << std::string(60 << 10, 'x');
            body();
        });
    }
};

TEST_F(LoadOfDisk, fullOneIsReportedAndWorksAgainLater) {
    TempFolder const folder;
    run(folder / "", [&folder] {
        bool closing_failed = false;
        EXPECT_EQ(4'096U, writeTo(folder / "file", std::string(20'000, 'y'), closing_failed));
        EXPECT_TRUE(chainIs({{SysErrorId::NO_SPACE}, {std::IBinStreamBase::TRANSFER_FAILED}}));
        EXPECT_FALSE(closing_failed);
        // Less than the buffer: the failure comes when it is passed on.
        EXPECT_EQ(10U, writeTo(folder / "other", std::string(10, 'z'), closing_failed));
        EXPECT_TRUE(closing_failed);
        EXPECT_TRUE(chainIs({{SysErrorId::NO_SPACE}, {std::IBinStreamBase::TRANSFER_FAILED}}));

        EXPECT_TRUE(vesk::FileSys::copy(
            vesk::UnicodeString(folder / "file"), vesk::UnicodeString(folder / "copy"), 1'000, nullptr));
        EXPECT_TRUE(chainIs({{SysErrorId::NO_SPACE}, {std::IBinStreamBase::TRANSFER_FAILED}}));

        EXPECT_FALSE(vesk::FileSys::removeFile((folder / "filler").c_str()));
        EXPECT_EQ(20'000U, writeTo(folder / "file", std::string(20'000, 'y'), closing_failed));
        EXPECT_FALSE(closing_failed);
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(20'000U, std::filesystem::file_size(folder / "file"));
    });
}

TEST_F(LoadOfDisk, sharedMemoryBeyondAFullOneIsMadeAndEndsTheProcessThatTouchesIt) {
    constexpr unsigned int SIZE = 32 << 10;
    run("/dev/shm", [] {
        vesk::SharedMemoryServer server;
        server.setUnlinkOnClose(true);
        ASSERT_FALSE(server.create("load", SIZE, vesk::Creatable::REPLACE));
        vesk::MemMapping const mapping =
            server.addMapping(vesk::MemMapping::READ | vesk::MemMapping::WRITE, SIZE);
        ASSERT_TRUE(mapping.isValid());
        ChildEnd const end = runInChild([&mapping] {
            signal(SIGBUS, SIG_DFL); // Not the handler of a sanitizer.
            memset(mapping.getAddress(), 1, SIZE);
        });
        EXPECT_EQ(SIGBUS, end.signal);
        EXPECT_FALSE(server.close());
    });
}

} // namespace
