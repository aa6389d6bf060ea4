#include "Operations.h"
#include "support/AllocationFault.h"
#include "support/Descriptors.h"
#include "support/EventRecorder.h"
#include "support/Testing.h"
#include "support/Threads.h"

#include <tarncommon/error/ErrorApi.h>

#include <dirent.h>
#include <fcntl.h>
#include <mqueue.h>
#include <random>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

// The system calls below the operations fail: each one together with each of the calls that follow it, which are
// those of the clean-up, and 1 % of the calls of many operations at random. What must hold: nothing crashes, hangs
// or leaks, and the operations work again afterwards.

namespace {

/// Decides which system calls of the calling thread fail during its lifetime.
class Plan {
public:
    /// The calls with these numbers fail, counted from 1.
    Plan(int first, int second) : m_first(first), m_second(second) { t_current = this; }
    /// One call of a hundred fails.
    explicit Plan(std::minstd_rand& random) : m_random(&random) { t_current = this; }
    ~Plan() { t_current = nullptr; }
    Plan(Plan const&) = delete;
    Plan& operator=(Plan const&) = delete;

    int getCount() const { return m_count; }
    int getFailures() const { return m_failures; }
    /// Returns the name of the last function that failed.
    std::string getFailed() const { return m_failed; }

    /// Counts a call of a function. Returns whether it must fail, with one of these numbers in `errno`.
    VESK_UNWATCHED static bool fails(char const* function, int error, int other) noexcept {
        Plan* const plan = t_current;
        if (plan == nullptr || support::Injected::isResolving()) {
            return false;
        }
        ++plan->m_count;
        bool const failing = plan->m_random != nullptr
            ? (*plan->m_random)() % 100 == 0
            : plan->m_count == plan->m_first || plan->m_count == plan->m_second;
        if (failing) {
            ++plan->m_failures;
            plan->m_failed = function;
            errno = plan->m_count % 2 == 0 ? other : error;
        }
        return failing;
    }

private:
    static inline thread_local Plan* t_current = nullptr;

    std::minstd_rand* m_random = nullptr;
    int m_first = 0;
    int m_second = 0;
    int m_count = 0;
    int m_failures = 0;
    char const* m_failed = "";
};

} // namespace

#define VESK_FAILING(result, failure, error, other, name, parameters, arguments)                             \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        if (Plan::fails(#name, error, other)) {                                                              \
            return failure;                                                                                  \
        }                                                                                                    \
        return reinterpret_cast<result(*) parameters>(inject_##name.getReal()) arguments;                    \
    }

/// The system releases a descriptor even if its close fails.
#define VESK_FAILING_AFTER(name, parameters, arguments)                                                      \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED int name parameters {                                                          \
        int const result = reinterpret_cast<int(*) parameters>(inject_##name.getReal()) arguments;           \
        return result == 0 && Plan::fails(#name, EIO, ENOSPC) ? -1 : result;                                 \
    }

VESK_INJECT_OPEN(if (Plan::fails("open", EMFILE, ENOMEM)) { return -1; })
VESK_FAILING_AFTER(close, (int fd), (fd))
VESK_FAILING_AFTER(closedir, (DIR * directory), (directory))
VESK_FAILING_AFTER(mq_close, (mqd_t queue), (queue))
VESK_FAILING_AFTER(sem_close, (sem_t * semaphore), (semaphore))
VESK_FAILING(ssize_t, -1, EIO, ENOMEM, read, (int fd, void* to, size_t size), (fd, to, size))
VESK_FAILING(ssize_t, -1, EIO, ENOSPC, write, (int fd, void const* from, size_t size), (fd, from, size))
VESK_FAILING(int, -1, EIO, EOVERFLOW, fstat, (int fd, struct stat* data), (fd, data))
VESK_FAILING(int, -1, EACCES, ENOENT, stat, (char const* path, struct stat* data), (path, data))
VESK_FAILING(int, -1, EACCES, ENOENT, lstat, (char const* path, struct stat* data), (path, data))
VESK_FAILING(off_t, -1, ESPIPE, EOVERFLOW, lseek, (int fd, off_t offset, int from), (fd, offset, from))
VESK_FAILING(int, -1, ENOSPC, EFBIG, ftruncate, (int fd, off_t length), (fd, length))
VESK_FAILING(int, -1, EACCES, EROFS, unlink, (char const* path), (path))
VESK_FAILING(int, -1, EACCES, EEXIST, mkstemp, (char* path), (path))
VESK_FAILING(DIR*, nullptr, ENOMEM, EMFILE, fdopendir, (int fd), (fd))
VESK_FAILING(dirent*, nullptr, EIO, ENOENT, readdir, (DIR * directory), (directory))
VESK_FAILING(int, -1, ENOMEM, EINVAL, munmap, (void* at, size_t size), (at, size))
VESK_FAILING(
    int, -1, EMFILE, EACCES, shm_open, (char const* name, int flags, mode_t mode), (name, flags, mode))
VESK_FAILING(int, -1, EACCES, ENOENT, shm_unlink, (char const* name), (name))
VESK_FAILING(int, -1, EACCES, ENOENT, mq_unlink, (char const* name), (name))
VESK_FAILING(int, -1, EACCES, ENOENT, sem_unlink, (char const* name), (name))
VESK_FAILING(int, -1, EBADF, EINVAL, mq_getattr, (mqd_t queue, mq_attr* attributes), (queue, attributes))
VESK_FAILING(int, -1, EMFILE, ENOBUFS, socket, (int family, int type, int protocol), (family, type, protocol))
VESK_FAILING(int, -1, EADDRINUSE, EACCES, bind, (int fd, sockaddr const* to, socklen_t size), (fd, to, size))
VESK_FAILING(
    int, -1, ECONNREFUSED, EAGAIN, connect, (int fd, sockaddr const* to, socklen_t size), (fd, to, size))
VESK_FAILING(int, -1, EADDRINUSE, EOPNOTSUPP, listen, (int fd, int backlog), (fd, backlog))
VESK_FAILING(
    int, -1, EMFILE, ECONNABORTED, accept4, (int fd, sockaddr* from, socklen_t* size, int flags),
    (fd, from, size, flags))
VESK_FAILING(
    int, -1, ENOPROTOOPT, EDOM, setsockopt,
    (int fd, int level, int option, void const* value, socklen_t size), (fd, level, option, value, size))
VESK_FAILING(
    int, -1, ENOBUFS, ENOTCONN, getsockname, (int fd, sockaddr* own, socklen_t* size), (fd, own, size))
VESK_FAILING(
    int, -1, ENOBUFS, ENOTCONN, getpeername, (int fd, sockaddr* peer, socklen_t* size), (fd, peer, size))
VESK_FAILING(int, -1, ENOTCONN, EINVAL, shutdown, (int fd, int how), (fd, how))

namespace {

using operations::Row;
using operations::ROWS;

/// What the process uses, without what the C library keeps for later.
struct Usage {
    int descriptors = support::countDescriptors();
    int threads = support::countThreads();
    long long blocks = support::g_blocks;
};

testing::AssertionResult hasNotGrownSince(Usage const& before) {
    bool const back = support::eventually([&] { return support::countThreads() <= before.threads; });
    Usage const now;
    if (back && now.descriptors == before.descriptors && now.blocks <= before.blocks) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
        << now.descriptors - before.descriptors << " descriptors, " << now.threads - before.threads
        << " threads, " << now.blocks - before.blocks << " blocks more";
}

/// Suppresses the default actions of all events: some failures are events, as documented.
class NoActions {
public:
    NoActions() : m_previous(std::GlobalErrorHandler::setHook(&HOOK)) {}
    ~NoActions() { std::GlobalErrorHandler::setHook(m_previous); }
    NoActions(NoActions const&) = delete;
    NoActions& operator=(NoActions const&) = delete;

private:
    static constexpr std::GlobalErrorHandler::Hook HOOK{
        [](std::GlobalErrorHandler::Event const&, void*) { return true; }, nullptr};
    std::GlobalErrorHandler::Hook const* m_previous;
};

/// Runs an operation. Returns the number of system calls that it has made.
int runWith(Row const& row, Plan const& plan) {
    NoActions const no_actions;
    try {
        row.run();
    } catch (std::bad_alloc const&) {} // As without memory.
    int const count = plan.getCount();
    std::ErrorStorage::ack();
    std::ErrorStorage::Chain::ofThread().unmap();
    return count;
}

int runWith(Row const& row, int first, int second) {
    Plan const plan(first, second);
    return runWith(row, plan);
}

/// Returns the operations that make system calls and return after each failure.
std::vector<Row> getRows() {
    // A failure of their pipe ends the process; another thread goes on with the child of the last one.
    std::set<std::string> const others{"Poller", "SignalQueue_pop", "Timer", "ProcessTNG_start"};
    std::vector<Row> rows;
    std::copy_if(std::begin(ROWS), std::end(ROWS), std::back_inserter(rows), [&](Row const& row) {
        return others.count(row.name) == 0;
    });
    return rows;
}

class Failures : public testing::TestWithParam<Row> {
protected:
    static void SetUpTestSuite() { operations::setUp(); }
    static void TearDownTestSuite() { operations::g_timer.reset(); }
};

INSTANTIATE_TEST_SUITE_P(All, Failures, testing::ValuesIn(getRows()), support::RowName());

TEST_P(Failures, mayComeInPairs) {
    constexpr int FOLLOWING = 12; // The clean-up is not longer.
    constexpr int MOST = 60;      // Of operations that make the same calls for each file.
    Row const& row = GetParam();
    ASSERT_EQ(0, chdir("/"));
    ASSERT_FALSE(row.run()) << tarn_error.getReasonList();
    int const calls = std::min(runWith(row, 0, 0), MOST);
    for (int first = 1; first <= calls; ++first) {
        int const last = std::min(runWith(row, first, 0), first + FOLLOWING);
        for (int second = first + 1; second <= last; ++second) {
            runWith(row, first, second); // A cache of the C library may keep blocks.
            Usage const before;
            runWith(row, first, second);
            ASSERT_TRUE(hasNotGrownSince(before)) << "calls " << first << " and " << second;
            ASSERT_FALSE(row.run()) << "does not work any more after calls " << first << " and " << second
                                    << " have failed: " << tarn_error.getReasonList();
        }
    }
}

/// How an operation tells its caller that one of its system calls has failed: a letter for each function.
/// R  it fails with a chain of reports
/// F  it fails without a report
/// E  an event of `GlobalErrorHandler`, such as the warning of a destructor, which has no other way
/// P  it succeeds, and a chain is pending: its result is not the one of the operation that failed
/// -  it succeeds, because it does not need the call
/// 2  several of these
struct Told : support::NamedRow {
    char const* functions;
};

Told const TOLD[] = {
    {"ErrorStorage_fiveLevels", "munmap:-"},
    {"FileInfo", "stat:R"},
    {"FileInfo_getOwner", "stat:P"},
    // The copy ends the process after its report. Here it continues, and the destructors close the files again.
    {"FileSys_copy", "close:2 open:R read:R unlink:- write:R"},
    // After its report, the constructor closes the descriptor again, and warns that it is closed.
    {"Directory", "closedir:E fdopendir:R open:R readdir:2"},
    {"Directory_curDir", "closedir:E fdopendir:R open:R readdir:2R"},
    {"StreamBinFileR", "close:- open:R"},
    // The file keeps its descriptor, which the destructors of both halves close again.
    {"StreamBinFileRW", "close:2 open:R"},
    {"BinTempFileRW", "close:E mkstemp:R unlink:E"},
    {"FmtFileWrapper", "close:E open:R"},
    // The object keeps its descriptor, which the destructor closes again.
    {"SharedMemory", "close:2 ftruncate:R shm_open:R shm_unlink:R"},
    {"SharedMemory_ring", "close:2 ftruncate:R shm_open:R shm_unlink:R"},
    {"MsgQueue", "mq_unlink:-R"}, // A name that is missing before the creation is no failure.
    {"Semaphore", "sem_unlink:-R"},
    {"NetDevice", "close:- socket:R"},
    {"NetDevice_all", "close:- socket:R"},
    {"ProcessInfo", "close:- open:R read:R"},
    {"ProcessInfo_getPIDs", "fdopendir:R open:R readdir:2R"}, // As `Directory`.
    {"ProcessTNG_settings", "stat:PR"},
    {"ProcessTNG_getProcessId", "fdopendir:P open:P readdir:2P"}, // Returns nothing; as `Directory`.
    {"TCPSocket",
     "accept4:R bind:R close:P connect:R getpeername:- getsockname:-R listen:R setsockopt:R socket:R"},
    {"UDPSocket", "bind:R close:P connect:2 socket:R"}, // `open` has no result: it reports and warns.
    {"UnixSocket", "accept4:R bind:R close:P connect:R getpeername:- listen:R socket:R"},
};

/// Operations without a row make no system call that this program replaces.
std::string getTold(char const* operation) {
    for (Told const& row : TOLD) {
        if (strcmp(row.what, operation) == 0) {
            return row.functions;
        }
    }
    return "";
}

/// Counts the chains that were replaced before the test has seen them.
class Discarded {
public:
    Discarded() { s_count = 0; }
    size_t getCount() const { return s_count; }

private:
    static inline thread_local size_t s_count;
    std::ErrorStorage m_store{[](void*, char const*, std::ErrorObject const*, unsigned int) { ++s_count; }};
};

/// Runs an operation while this call fails, and adds the letter of what happens to those of the function.
void addTold(Row const& row, int nth, std::map<std::string, std::set<char>>& told) {
    Discarded const discarded;
    support::EventRecorder const events;
    Plan const plan(nth, 0);
    bool const failed = row.run();
    bool const pending = std::ErrorStorage::isError(true);
    std::ErrorStorage::ack();
    size_t const times = discarded.getCount() + events.getCount() + (pending ? 1 : 0);
    char const once = events.getCount() != 0 ? 'E' : failed ? 'R' : 'P';
    told[plan.getFailed()].insert(times > 1 ? '2' : times == 1 ? once : failed ? 'F' : '-');
}

TEST_P(Failures, areToldOnce) {
    Row const& row = GetParam();
    ASSERT_EQ(0, chdir("/"));
    ASSERT_FALSE(row.run()) << tarn_error.getReasonList();
    int const calls = std::min(runWith(row, 0, 0), 60);
    std::map<std::string, std::set<char>> told;
    for (int nth = 1; nth <= calls; ++nth) {
        addTold(row, nth, told);
    }
    std::string text;
    for (auto const& [function, letters] : told) {
        text += (text.empty() ? "" : " ") + function + ":" + std::string(letters.begin(), letters.end());
    }
    EXPECT_EQ(getTold(row.name), text);
}

class RandomFailures : public testing::TestWithParam<unsigned long> {
protected:
    static void SetUpTestSuite() { operations::setUp(); }
    static void TearDownTestSuite() { operations::g_timer.reset(); }

    /// Runs a thousand operations. Returns the number of failures.
    static int runAll(unsigned long seed) {
        std::vector<Row> const rows = getRows();
        std::minstd_rand random(static_cast<std::minstd_rand::result_type>(seed));
        int failures = 0;
        for (int i = 0; i < 1000; ++i) {
            Row const& row = rows[random() % rows.size()];
            Plan const plan(random);
            runWith(row, plan);
            failures += plan.getFailures();
        }
        return failures;
    }
};

/// VESK_SEED in the environment is a further seed.
std::vector<unsigned long> getSeeds() {
    char const* const seed = getenv("VESK_SEED");
    std::vector<unsigned long> seeds{1, 2};
    if (seed != nullptr) {
        seeds.push_back(strtoul(seed, nullptr, 10));
    }
    return seeds;
}

INSTANTIATE_TEST_SUITE_P(
    Seed, RandomFailures, testing::ValuesIn(getSeeds()), testing::PrintToStringParamName());

TEST_P(RandomFailures, leaveNothingBehind) {
    runAll(GetParam()); // Fills the caches of the C library.
    Usage const before;
    EXPECT_GT(runAll(GetParam()), 10);
    EXPECT_TRUE(hasNotGrownSince(before)) << "seed " << GetParam();
    for (Row const& row : getRows()) {
        EXPECT_FALSE(row.run()) << row.name << ", seed " << GetParam() << ": " << tarn_error.getReasonList();
    }
}

} // namespace
