#include "support/Testing.h"

#include <vesk/Mutex.h>
#include <vesk/SystemLogger.h>

#include <tarncommon/error/ErrorObject.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

/// The destination of the calls of libc's log: a list, the real functions, or standard output. No call
/// reaches the machine's own log.
enum class Calls { RECORDED, REAL, PRINTED };
std::atomic<Calls> s_mode{Calls::RECORDED};
std::mutex s_mutex;
std::vector<std::string> s_calls;

void record(std::string const& call) {
    if (s_mode == Calls::PRINTED) {
        // At the end of a process, no object is usable.
        dprintf(STDOUT_FILENO, "%s\n", call.c_str());
        return;
    }
    std::lock_guard<std::mutex> const guard(s_mutex);
    s_calls.push_back(call);
}

std::vector<std::string> takeCalls() {
    std::lock_guard<std::mutex> const guard(s_mutex);
    return std::exchange(s_calls, {});
}

void recordMessage(int priority, char const* format, va_list args) {
    if (s_mode == Calls::REAL) {
        vsyslog(priority, format, args);
        return;
    }
    std::string call = "syslog " + std::to_string(priority) + " " + format;
    if (strcmp(format, "%s") == 0) {
        call += std::string(" ") + va_arg(args, char const*);
    }
    record(call);
}

} // namespace

VESK_INJECT_NOTING(
    void, , openlog, (char const* identity, int options, int facility), (identity, options, facility),
    if (s_mode != Calls::REAL) {
        return record(
            "openlog " + (identity + (" " + std::to_string(options)) + " " + std::to_string(facility)));
    })
VESK_INJECT_NOTING(
    void, , closelog, (), (), if (s_mode != Calls::REAL) { return record("closelog"); })

extern "C" void syslog(int priority, char const* format, ...) {
    va_list args;
    va_start(args, format);
    recordMessage(priority, format, args);
    va_end(args);
}

/// The function that a hardened build calls.
extern "C" void __syslog_chk(int priority, int, char const* format, ...) {
    va_list args;
    va_start(args, format);
    recordMessage(priority, format, args);
    va_end(args);
}

namespace {

using namespace support;
using vesk::LogLevel;
using vesk::Mutex;
using vesk::SystemLogger;
using Lines = std::vector<std::string>;

constexpr char const* OPENED = "openlog lumo framework 9 8";

/// Runs a test in a process that has the open log, and no recorded calls yet. The process of the test never
/// makes the object, so that other tests can check its construction.
void withLogger(void (*body)()) {
    expectInChild([&body] {
        SystemLogger::getInstance();
        takeCalls();
        body();
    });
}

void log(int level, char const* text) {
    SystemLogger::getInstance().log(static_cast<LogLevel>(level), text);
}
void openLog() {
    SystemLogger::getInstance().openLog();
}
void closeLog() {
    SystemLogger::getInstance().closeLog();
}

constexpr int ERROR = 0;
constexpr int WARNING = 1;
constexpr int NOTICE = 2;

// ---- calls ----

struct MessageRow : NamedRow {
    int level;
    char const* text;
    char const* call;
};

MessageRow const SYSTEM_LOGGER_MESSAGES[] = {
    {"asASeparateArgument", ERROR, "disk on fire", "syslog 3 %s disk on fire"},
    {"withPercentSigns", NOTICE, "100% %s%n %d", "syslog 5 %s 100% %s%n %d"},
    {"evenIfEmpty", NOTICE, "", "syslog 5 %s "},
    {"level0", 0, "text", "syslog 3 %s text"},
    {"level1", 1, "text", "syslog 4 %s text"},
    {"level2", 2, "text", "syslog 5 %s text"},
    {"level3", 3, "text", "syslog 5 %s text"},
    {"level7", 7, "text", "syslog 5 %s text"},
    {"levelMinus1", -1, "text", "syslog 5 %s text"}};

VESK_TEST_TABLE(SystemLoggerMessages, areSentUnchanged, testing::Test, SYSTEM_LOGGER_MESSAGES) {
    withLogger([] {
        log(GetParam().level, GetParam().text);
        EXPECT_EQ(Lines{GetParam().call}, takeCalls());
    });
}

static_assert(static_cast<int>(LogLevel::ERROR) == ERROR && LOG_ERR == 3);
static_assert(static_cast<int>(LogLevel::WARNING) == WARNING && LOG_WARNING == 4);
static_assert(static_cast<int>(LogLevel::NOTICE) == NOTICE && LOG_NOTICE == 5);

VESK_TEST_BY(withLogger, SystemLogger, opensAndClosesTheLogOnceAndLoggingOpensIt) {
    std::pair<std::function<void()>, Lines> const steps[] = {
        {openLog, {}},
        {closeLog, {"closelog"}},
        {closeLog, {}},
        {[] { log(WARNING, "again"); }, {OPENED, "syslog 4 %s again"}},
        {[] { log(WARNING, "and again"); }, {"syslog 4 %s and again"}},
        {closeLog, {"closelog"}},
        {openLog, {OPENED}}};
    for (auto const& [perform, calls] : steps) {
        perform();
        EXPECT_EQ(calls, takeCalls());
    }
}

static_assert(!std::is_polymorphic_v<SystemLogger> && sizeof(SystemLogger) == 4);
static_assert(!std::is_default_constructible_v<SystemLogger>);
static_assert(!std::is_copy_constructible_v<SystemLogger> && !std::is_destructible_v<SystemLogger>);

// ---- the one object ----

VESK_TEST_BY(expectInChild, SystemLoggerInstance, isMadeAndOpenedByItsFirstUseAndTheSameForAllThreads) {
    EXPECT_EQ(Lines{}, takeCalls());
    SystemLogger* found[8] = {};
    runInThreads(8, [&found](int i) { found[i] = &SystemLogger::getInstance(); });
    EXPECT_EQ(1u, std::set<SystemLogger*>(std::begin(found), std::end(found)).size());
    EXPECT_EQ(Lines{OPENED}, takeCalls());
    EXPECT_EQ(found[0], &SystemLogger::getInstance());
    EXPECT_EQ(Lines{}, takeCalls());
}

/// Runs a body and then `exit`, and checks that the log is opened and closed.
void expectClosedOnce(void (*body)()) {
    ChildEnd const end = runInChild([body] {
        s_mode = Calls::PRINTED;
        body();
        exit(0);
    });
    EXPECT_EQ(0, end.exit_code);
    EXPECT_EQ(std::string(OPENED) + "\ncloselog\n", end.output);
}

VESK_TEST_BY(expectClosedOnce, SystemLoggerInstance, isClosedAtTheEndOfTheProcess) {
    SystemLogger::getInstance();
}

VESK_TEST_BY(expectClosedOnce, SystemLoggerInstance, isNotClosedTwiceAtTheEndOfTheProcess) {
    closeLog();
}

std::string s_events;

/// Records each event with the report that is pending then, and suppresses the default actions.
std::GlobalErrorHandler::Hook const PENDING_RECORDER{
    [](std::GlobalErrorHandler::Event const& event, void*) {
        auto const* const report = std::ErrorStorage::get();
        s_events += std::string(event.file) + " " + event.function + ": " + event.message +
            ", pending: " + (report != nullptr ? report->getText() : "nothing") + "\n";
        return true;
    },
    nullptr};

VESK_TEST_BY(expectInChild, SystemLoggerInstance, failureToLockAbortsBehindItsReport) {
    std::GlobalErrorHandler::setHook(&PENDING_RECORDER);
    {
        Fault const fault(inject_pthread_mutex_lock, EAGAIN);
        SystemLogger::getInstance();
    }
    std::string const first = "framework/src/vesk/linux/SystemLogger getInstance: error locking, "
                              "pending: Mutex lock failed: " +
        systemText(EAGAIN) + "\n";
    EXPECT_EQ(first, s_events.substr(0, first.size()));
    EXPECT_EQ(Lines{OPENED}, takeCalls()) << "the object is made all the same";
    std::ErrorStorage::ack();
}

TEST(SystemLoggerInstance, failureToUnlockAbortsBehindItsReport) {
    ChildEnd const end = runInChild([] {
        std::GlobalErrorHandler::setHook(&PENDING_RECORDER);
        {
            Fault const fault(inject_pthread_mutex_unlock, EPERM);
            s_mode = Calls::PRINTED; // The list has a lock of its own.
            SystemLogger::getInstance();
        }
        EXPECT_EQ(
            "framework/src/vesk/linux/SystemLogger getInstance: error unlocking, pending: Mutex "
            "inconsistency detected: " +
                systemText(EPERM) + "\n",
            s_events);
        EXPECT_TRUE(chainIs({{vesk::Mutex::ErrorId::INCONSISTENT}}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
    EXPECT_EQ(std::string(OPENED) + "\n", end.output);
}

// ---- messages that arrive in a system log, in a child with a private /dev ----

/// The receiving end of a system log at /dev/log.
class Receiver {
public:
    Receiver() {
        EXPECT_TRUE(separateMounts() && mountMemory("/dev")) << strerror(errno);
        m_socket = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "/dev/log");
        EXPECT_EQ(0, bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address));
        timeval const patience{30, 0};
        EXPECT_EQ(0, setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience));
        s_mode = Calls::REAL;
    }
    ~Receiver() { close(m_socket); }

    /// Returns the next message.
    std::string take() const {
        char buffer[4096];
        ssize_t const length = recv(m_socket, buffer, sizeof buffer, 0);
        return length < 0 ? std::string("nothing") : std::string(buffer, static_cast<size_t>(length));
    }

    /// Checks that the next message is "<priority>date lumo framework[pid]: text".
    void expect(int priority, std::string const& text) const {
        std::string const message = take();
        std::string const begin = "<" + std::to_string(priority) + ">";
        std::string const end = " lumo framework[" + std::to_string(getpid()) + "]: " + text;
        ASSERT_LT(begin.size() + end.size(), message.size()) << message;
        tm fields{};
        char const* const rest = strptime(message.c_str() + begin.size(), "%b %e %H:%M:%S", &fields);
        ASSERT_NE(nullptr, rest) << message;
        EXPECT_EQ(begin, message.substr(0, begin.size()));
        EXPECT_EQ(end, rest);
    }
    bool isEmpty() const {
        char byte;
        return recv(m_socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0;
    }

private:
    int m_socket;
};

/// Runs a test with a system log, or skips it.
void withReceiver(void (*body)(Receiver const&)) {
    VESK_SKIP_WITHOUT_MOUNTS();
    expectInChild([body] {
        Receiver const receiver;
        body(receiver);
    });
}

TEST(SystemLoggerMessage, arrivesWithPriorityIdentityAndProcessIdAlsoAfterTheLogWasClosed) {
    withReceiver([](Receiver const& receiver) {
        log(ERROR, "disk on fire");
        receiver.expect(8 | 3, "disk on fire");
        log(WARNING, "100% %s%n %d");
        receiver.expect(8 | 4, "100% %s%n %d");
        closeLog();
        closeLog();
        for (int const level : {NOTICE, 7}) {
            log(level, "all is well");
            receiver.expect(8 | 5, "all is well");
        }
        EXPECT_TRUE(receiver.isEmpty());
        closeLog();
        openLog();
        EXPECT_EQ(0, unlink("/dev/log"));
        log(NOTICE, "connected");
        receiver.expect(8 | 5, "connected"); // Over the connection that opening the log has made.
        closeLog();
        log(ERROR, "lost");
        EXPECT_TRUE(receiver.isEmpty());
        EXPECT_TRUE(chainIs({}));
    });
}

TEST(SystemLoggerMessage, arrivesFromAllThreadsEvenWhenTheLogIsClosed) {
    withReceiver([](Receiver const& receiver) {
        constexpr int THREADS = 4;
        constexpr int ROUNDS = 50;
        closeLog();
        std::set<std::string> arrived;
        runInThreads(THREADS + 1, [&](int i) {
            for (int round = 0; i < THREADS && round < ROUNDS; ++round) {
                log(NOTICE, (std::to_string(i) + "." + std::to_string(round)).c_str());
            }
            for (int received = 0; i == THREADS && received < THREADS * ROUNDS; ++received) {
                std::string const message = receiver.take();
                arrived.insert(message.substr(message.rfind(' ') + 1));
            }
        });
        EXPECT_EQ(static_cast<size_t>(THREADS * ROUNDS), arrived.size());
        EXPECT_TRUE(receiver.isEmpty());
    });
}

} // namespace
