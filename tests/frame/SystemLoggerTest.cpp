#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"

#include <vesk/Mutex.h>
#include <vesk/SystemLogger.h>

#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <mutex>
#include <sched.h>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

/// Where the calls of libc's log go: each is written down, and only the real log gets what a test wants there. The
/// machine's own log sees nothing of the tests.
enum class Calls { RECORDED, REAL, PRINTED };
std::atomic<Calls> s_mode{Calls::RECORDED};
std::mutex s_mutex;
std::vector<std::string> s_calls;

void record(std::string const& call) {
    if (s_mode == Calls::PRINTED) {
        // For what happens at the end of a process, when no object can be relied on.
        dprintf(STDOUT_FILENO, "%s\n", call.c_str());
        return;
    }
    std::lock_guard<std::mutex> const guard(s_mutex);
    s_calls.push_back(call);
}

std::vector<std::string> takeCalls() {
    std::lock_guard<std::mutex> const guard(s_mutex);
    std::vector<std::string> calls;
    calls.swap(s_calls);
    return calls;
}

support::Injected s_real_openlog("openlog");
support::Injected s_real_closelog("closelog");

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

extern "C" void openlog(char const* identity, int options, int facility) {
    if (s_mode == Calls::REAL) {
        reinterpret_cast<void (*)(char const*, int, int)>(s_real_openlog.getReal())(
            identity, options, facility);
        return;
    }
    record(
        std::string("openlog ") + identity + " " + std::to_string(options) + " " + std::to_string(facility));
}

extern "C" void closelog() {
    if (s_mode == Calls::REAL) {
        reinterpret_cast<void (*)()>(s_real_closelog.getReal())();
        return;
    }
    record("closelog");
}

extern "C" void syslog(int priority, char const* format, ...) {
    va_list args;
    va_start(args, format);
    recordMessage(priority, format, args);
    va_end(args);
}

/// What a hardened build calls instead.
extern "C" void __syslog_chk(int priority, int, char const* format, ...) {
    va_list args;
    va_start(args, format);
    recordMessage(priority, format, args);
    va_end(args);
}

namespace {

using support::chainIs;
using support::ChildEnd;
using support::Fault;
using support::runInChild;
using support::systemText;
using vesk::LogLevel;
using vesk::Mutex;
using vesk::SystemLogger;
using Lines = std::vector<std::string>;

constexpr char const* OPENED = "openlog lumo framework 9 8";

/// Runs a test in a process of its own with the one object, open, and no calls recorded yet. This process never makes the
/// object, so that other tests can watch how it comes to be.
void withLogger(std::function<void(SystemLogger&)> const& body) {
    ChildEnd const end = runInChild([&body] {
        SystemLogger& logger = SystemLogger::getInstance();
        takeCalls();
        body(logger);
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

// ---- calls ----

TEST(SystemLogger, sendsTheMessageAsAnArgumentOfItsOwn) {
    withLogger([](SystemLogger& logger) {
        logger.log(LogLevel::ERROR, "disk on fire");
        EXPECT_EQ(Lines{"syslog 3 %s disk on fire"}, takeCalls());
    });
}

TEST(SystemLogger, percentSignIsNothingSpecial) {
    withLogger([](SystemLogger& logger) {
        logger.log(LogLevel::NOTICE, "100% %s%n %d");
        EXPECT_EQ(Lines{"syslog 5 %s 100% %s%n %d"}, takeCalls());
    });
}

TEST(SystemLogger, emptyMessageIsSent) {
    withLogger([](SystemLogger& logger) {
        logger.log(LogLevel::NOTICE, "");
        EXPECT_EQ(Lines{"syslog 5 %s "}, takeCalls());
    });
}

struct LevelRow {
    int level;
    int priority;
};

void PrintTo(LevelRow const& row, std::ostream* out) {
    *out << row.level;
}

class SystemLoggerLevels : public testing::TestWithParam<LevelRow> {};

TEST_P(SystemLoggerLevels, arriveWithTheirPriority) {
    withLogger([](SystemLogger& logger) {
        logger.log(static_cast<LogLevel>(GetParam().level), "text");
        EXPECT_EQ(Lines{"syslog " + std::to_string(GetParam().priority) + " %s text"}, takeCalls());
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, SystemLoggerLevels,
    testing::Values(
        LevelRow{0, LOG_ERR}, LevelRow{1, LOG_WARNING}, LevelRow{2, LOG_NOTICE}, LevelRow{7, LOG_NOTICE},
        LevelRow{3, LOG_NOTICE}, LevelRow{-1, LOG_NOTICE}));

TEST(SystemLogger, levelsAndPrioritiesHaveTheirNumbers) {
    static_assert(static_cast<int>(LogLevel::ERROR) == 0 && static_cast<int>(LogLevel::WARNING) == 1);
    static_assert(static_cast<int>(LogLevel::NOTICE) == 2);
    EXPECT_EQ(3, LOG_ERR);
    EXPECT_EQ(4, LOG_WARNING);
    EXPECT_EQ(5, LOG_NOTICE);
}

TEST(SystemLogger, openingAnOpenLogDoesNothing) {
    withLogger([](SystemLogger& logger) {
        logger.openLog();
        EXPECT_EQ(Lines{}, takeCalls());
    });
}

TEST(SystemLogger, closingAClosedLogDoesNothing) {
    withLogger([](SystemLogger& logger) {
        logger.closeLog();
        EXPECT_EQ(Lines{"closelog"}, takeCalls());
        logger.closeLog();
        EXPECT_EQ(Lines{}, takeCalls());
    });
}

TEST(SystemLogger, loggingOpensAClosedLogAgain) {
    withLogger([](SystemLogger& logger) {
        logger.closeLog();
        logger.log(LogLevel::WARNING, "again");
        logger.log(LogLevel::WARNING, "and again");
        EXPECT_EQ((Lines{"closelog", OPENED, "syslog 4 %s again", "syslog 4 %s and again"}), takeCalls());
    });
}

TEST(SystemLogger, closedLogIsOpenedAgainWithTheSameIdentity) {
    withLogger([](SystemLogger& logger) {
        logger.closeLog();
        logger.openLog();
        EXPECT_EQ((Lines{"closelog", OPENED}), takeCalls());
    });
}

TEST(SystemLogger, isNoPolymorphicClassAndNobodyMakesAnother) {
    static_assert(!std::is_polymorphic_v<SystemLogger>);
    static_assert(!std::is_default_constructible_v<SystemLogger>);
    static_assert(!std::is_copy_constructible_v<SystemLogger> && !std::is_destructible_v<SystemLogger>);
    static_assert(sizeof(SystemLogger) == 4);
}

// ---- the one object ----

TEST(SystemLoggerInstance, isMadeAndOpenedByItsFirstUse) {
    ChildEnd const end = runInChild([] {
        EXPECT_EQ(Lines{}, takeCalls());
        SystemLogger& logger = SystemLogger::getInstance();
        EXPECT_EQ(Lines{OPENED}, takeCalls());
        EXPECT_EQ(&logger, &SystemLogger::getInstance());
        EXPECT_EQ(Lines{}, takeCalls());
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST(SystemLoggerInstance, isTheSameForAllThreads) {
    ChildEnd const end = runInChild([] {
        constexpr size_t THREADS = 8;
        std::atomic<size_t> ready{0};
        SystemLogger* found[THREADS] = {};
        std::vector<std::thread> threads;
        for (SystemLogger*& logger : found) {
            threads.emplace_back([&ready, &logger] {
                ++ready;
                while (ready < THREADS) {
                    std::this_thread::yield();
                }
                logger = &SystemLogger::getInstance();
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(1u, std::set<SystemLogger*>(std::begin(found), std::end(found)).size());
        EXPECT_EQ(Lines{OPENED}, takeCalls());
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST(SystemLoggerInstance, isClosedAtTheEndOfTheProcess) {
    ChildEnd const end = runInChild([] {
        s_mode = Calls::PRINTED;
        SystemLogger::getInstance();
        exit(0);
    });
    EXPECT_EQ(0, end.exit_code);
    EXPECT_EQ(std::string(OPENED) + "\ncloselog\n", end.output);
}

TEST(SystemLoggerInstance, isNotClosedTwiceAtTheEndOfTheProcess) {
    ChildEnd const end = runInChild([] {
        s_mode = Calls::PRINTED;
        SystemLogger::getInstance().closeLog();
        exit(0);
    });
    EXPECT_EQ(0, end.exit_code);
    EXPECT_EQ(std::string(OPENED) + "\ncloselog\n", end.output);
}

/// Tells each event together with the report that is pending at that moment, and lets the code behind it go on.
class PendingRecorder {
public:
    PendingRecorder() :
        m_hook{
            [](std::GlobalErrorHandler::Event const& event, void* context) {
                std::string& text = static_cast<PendingRecorder*>(context)->m_text;
                text += std::string(event.file) + " " + event.function + ": " + event.message + ", pending: ";
                auto const* const report = std::ErrorStorage::get();
                text += report != nullptr ? report->getText() : "nothing";
                text += '\n';
                return true;
            },
            this},
        m_previous(std::GlobalErrorHandler::setHook(&m_hook)) {}
    ~PendingRecorder() { std::GlobalErrorHandler::setHook(m_previous); }

    std::string const& getText() const { return m_text; }

private:
    std::string m_text;
    std::GlobalErrorHandler::Hook m_hook;
    std::GlobalErrorHandler::Hook const* m_previous;
};

TEST(SystemLoggerInstance, lockThatFailsGoesToTheAbortHandlerOnTopOfItsReport) {
    ChildEnd const end = runInChild([] {
        PendingRecorder const recorder;
        {
            Fault const fault(inject_pthread_mutex_lock, EAGAIN);
            SystemLogger::getInstance();
        }
        std::string const first = "framework/src/vesk/linux/SystemLogger getInstance: error locking, "
                                  "pending: Mutex lock failed: " +
            systemText(EAGAIN) + "\n";
        EXPECT_EQ(first, recorder.getText().substr(0, first.size()));
        EXPECT_EQ(Lines{OPENED}, takeCalls()) << "the object is made all the same";
        std::ErrorStorage::ack();
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST(SystemLoggerInstance, unlockThatFailsGoesToTheAbortHandlerOnTopOfItsReport) {
    ChildEnd const end = runInChild([] {
        PendingRecorder const recorder;
        {
            Fault const fault(inject_pthread_mutex_unlock, EPERM);
            s_mode = Calls::PRINTED; // Recording has a lock of its own.
            SystemLogger::getInstance();
        }
        EXPECT_EQ(
            "framework/src/vesk/linux/SystemLogger getInstance: error unlocking, pending: Mutex "
            "inconsistency detected: " +
                systemText(EPERM) + "\n",
            recorder.getText());
        EXPECT_TRUE(chainIs({{Mutex::ErrorId::INCONSISTENT}}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
    EXPECT_EQ(std::string(OPENED) + "\n", end.output);
}

TEST(SystemLoggerInstance, lockThatFailsEndsTheProcess) {
    ChildEnd const end = runInChild([] {
        Fault const fault(inject_pthread_mutex_lock, EAGAIN);
        SystemLogger::getInstance();
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("framework/src/vesk/linux/SystemLogger")) << end.errors;
    EXPECT_NE(std::string::npos, end.errors.find("getInstance")) << end.errors;
    EXPECT_NE(std::string::npos, end.errors.find("error locking")) << end.errors;
}

// ---- messages that really arrive: a system log of the test's own, in a child whose /dev nobody else sees ----

constexpr int NO_PRIVATE_LOG = 77;

/// The receiving end of a system log at /dev/log.
class Receiver {
public:
    Receiver() {
        // A child that cannot have one ends, and its test is skipped.
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) {
            dprintf(STDOUT_FILENO, "no mount namespace to be had: %s", strerror(errno));
            _exit(NO_PRIVATE_LOG);
        }
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

    /// The next message.
    std::string take() const {
        char buffer[4096];
        ssize_t const length = recv(m_socket, buffer, sizeof buffer, 0);
        return length < 0 ? std::string("nothing") : std::string(buffer, static_cast<size_t>(length));
    }

    bool isEmpty() const {
        char byte;
        return recv(m_socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0;
    }

private:
    int m_socket;
};

/// Whether a message is "<priority>date lumo framework[pid]: text".
testing::AssertionResult isMessage(std::string const& message, int priority, std::string const& text) {
    std::string const begin = "<" + std::to_string(priority) + ">";
    std::string const end = " lumo framework[" + std::to_string(getpid()) + "]: " + text;
    if (message.size() > begin.size() + end.size() && message.compare(0, begin.size(), begin) == 0 &&
        message.compare(message.size() - end.size(), end.size(), end) == 0) {
        std::string const date = message.substr(begin.size(), message.size() - begin.size() - end.size());
        tm fields{};
        char const* const rest = strptime(date.c_str(), "%b %e %H:%M:%S", &fields);
        if (rest != nullptr && *rest == '\0') {
            return testing::AssertionSuccess();
        }
    }
    return testing::AssertionFailure() << "got: " << message;
}

#define EXPECT_OR_SKIP(end)                                                                                  \
    if ((end).exit_code == NO_PRIVATE_LOG) {                                                                 \
        GTEST_SKIP() << (end).output;                                                                        \
    }                                                                                                        \
    EXPECT_EQ(0, (end).exit_code) << (end).output

TEST(SystemLoggerMessage, arrivesWithPriorityIdentityAndProcessId) {
    ChildEnd const end = runInChild([] {
        Receiver const receiver;
        SystemLogger& logger = SystemLogger::getInstance();
        logger.log(LogLevel::ERROR, "disk on fire");
        EXPECT_TRUE(isMessage(receiver.take(), 8 | 3, "disk on fire"));
        logger.log(LogLevel::WARNING, "100% %s%n %d");
        EXPECT_TRUE(isMessage(receiver.take(), 8 | 4, "100% %s%n %d"));
        logger.log(LogLevel::NOTICE, "all is well");
        EXPECT_TRUE(isMessage(receiver.take(), 8 | 5, "all is well"));
        logger.log(static_cast<LogLevel>(7), "all is well");
        EXPECT_TRUE(isMessage(receiver.take(), 8 | 5, "all is well"));
        EXPECT_TRUE(receiver.isEmpty());
    });
    EXPECT_OR_SKIP(end);
}

TEST(SystemLoggerMessage, isSentOverAConnectionThatOpeningMakesAtOnce) {
    ChildEnd const end = runInChild([] {
        Receiver const receiver;
        SystemLogger& logger = SystemLogger::getInstance();
        EXPECT_EQ(0, unlink("/dev/log"));
        logger.log(LogLevel::NOTICE, "connected");
        EXPECT_TRUE(isMessage(receiver.take(), 8 | 5, "connected"));
    });
    EXPECT_OR_SKIP(end);
}

TEST(SystemLoggerMessage, arrivesAfterTheLogWasClosed) {
    ChildEnd const end = runInChild([] {
        Receiver const receiver;
        SystemLogger& logger = SystemLogger::getInstance();
        logger.closeLog();
        logger.closeLog();
        logger.log(LogLevel::NOTICE, "again");
        EXPECT_TRUE(isMessage(receiver.take(), 8 | 5, "again"));
    });
    EXPECT_OR_SKIP(end);
}

TEST(SystemLoggerMessage, isLostWithoutASystemLogAndNothingElseHappens) {
    ChildEnd const end = runInChild([] {
        {
            Receiver const receiver;
            EXPECT_EQ(0, unlink("/dev/log"));
        }
        SystemLogger::getInstance().log(LogLevel::ERROR, "nobody hears it");
        EXPECT_TRUE(chainIs({}));
    });
    EXPECT_OR_SKIP(end);
}

TEST(SystemLoggerMessage, arrivesFromAllThreadsEvenWhenTheLogIsClosed) {
    ChildEnd const end = runInChild([] {
        constexpr int THREADS = 4;
        constexpr int ROUNDS = 50;
        Receiver const receiver;
        SystemLogger& logger = SystemLogger::getInstance();
        logger.closeLog();
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&logger, i] {
                for (int round = 0; round < ROUNDS; ++round) {
                    logger.log(LogLevel::NOTICE, (std::to_string(i) + "." + std::to_string(round)).c_str());
                }
            });
        }
        std::set<std::string> arrived;
        for (int i = 0; i < THREADS * ROUNDS; ++i) {
            std::string const message = receiver.take();
            arrived.insert(message.substr(message.rfind(' ') + 1));
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(static_cast<size_t>(THREADS * ROUNDS), arrived.size());
        EXPECT_TRUE(receiver.isEmpty());
    });
    EXPECT_OR_SKIP(end);
}

} // namespace
