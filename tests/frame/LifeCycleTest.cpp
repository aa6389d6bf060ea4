#include "LifeCycleSubjects.h"
#include "support/Descriptors.h"
#include "support/Emulation.h"
#include "support/Sanitizers.h"
#include "support/Sleeper.h"
#include "support/Testing.h"

#include <vesk/Thread.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorApi.h>

// What happens to the objects of each class with threads, locks or waiters when they are destroyed, when their
// thread is terminated, when the process exits, forks or unloads the libraries, in each of their states.

#if defined(__SANITIZE_ADDRESS__)
// Threads still own memory when the process ends.
extern "C" char const* __asan_default_options() {
    return "detect_leaks=0";
}
#endif

#if defined(__SANITIZE_THREAD__)
// Threads still run when the process ends.
extern "C" char const* __tsan_default_options() {
    return "report_thread_leaks=0:die_after_fork=0:atexit_sleep_ms=0";
}
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A thread that starts during the fork can hold a lock of the allocator, which stays locked in the child.
constexpr bool HAS_RUNTIME_WITH_LOCKS = true;
#else
bool const HAS_RUNTIME_WITH_LOCKS = support::IS_EMULATED;
#endif

namespace {

using life::Callbacks;
using life::Class;
using life::Subject;

enum Event { DESTROYED, TERMINATED, EXITS, FORKS, UNLOADED };
constexpr char const* EVENTS[] = {"destroyed", "terminated", "exits", "forks", "unloaded"};
enum State { IDLE, USED, IN_CALLBACK, WAITING };
constexpr char const* STATES[] = {"Idle", "Used", "InCallback", "Waiting"};

char const* getLetters(Class const& row, int event) {
    char const* const letters[] = {row.destroyed, row.terminated, row.exits, row.forks, row.unloaded};
    return letters[event];
}

/// A thread that can be terminated.
class Worker {
public:
    explicit Worker(std::function<void()> body)
        : m_body(std::move(body)),
          m_thread([](void* self) { static_cast<Worker*>(self)->run(); }, this, "worker") {
        EXPECT_FALSE(m_thread.start());
        EXPECT_TRUE(support::eventually([this] { return m_id != 0; }));
    }
    ~Worker() {
        EXPECT_TRUE(support::eventually([this] { return hasEnded(); })) << "the worker hangs";
        if (!m_is_terminated) {
            EXPECT_FALSE(m_thread.join());
        }
        EXPECT_TRUE(support::eventually([this] { return !support::isThread(m_id); }));
    }
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    void terminate() {
        EXPECT_FALSE(m_thread.terminate());
        m_is_terminated = true;
    }
    bool hasEnded() const { return m_has_ended; }
    void awaitSleep() const { support::waitUntilAsleep(getpid(), m_id); }

private:
    struct End {
        explicit End(std::atomic<bool>& its_flag) : flag(its_flag) {}
        ~End() { flag = true; }
        End(End const&) = delete;
        End& operator=(End const&) = delete;
        std::atomic<bool>& flag;
    };
    void run() {
        End const end(m_has_ended);
        m_id = support::getThreadId();
        m_body();
    }

    std::function<void()> m_body;
    std::atomic<pid_t> m_id{0};
    std::atomic<bool> m_has_ended{false};
    bool m_is_terminated = false;
    vesk::Thread m_thread;
};

[[noreturn]] void endHere() {
    exit(testing::Test::HasFailure() ? 1 : 0);
}

/// Runs until its thread is terminated.
void runUntilTerminated() {
    for (;;) {
        pthread_testcancel();
        sched_yield();
    }
}

/// One cell of the matrix, in a process of its own.
class Cell {
public:
    Cell(Class const& row, Event event, State state)
        : m_row(row), m_event(event), m_state(state), m_letter(getLetters(row, event)[state]) {}

    void run() {
        if (m_letter != 'a' && m_event != EXITS) {
            m_events.emplace();
        }
        static vesk::Vesk const s_vesk(true, false);
        int const descriptors = support::countDescriptors();
        if (m_state == IDLE && m_event == TERMINATED) {
            terminateMaker();
        } else {
            m_subject = m_row.make();
            if (m_state != IN_CALLBACK) {
                EXPECT_FALSE(m_subject->use()) << tarn_error.getReasonList();
            }
            reach();
        }
        if (m_event != DESTROYED) {
            EXPECT_FALSE(m_subject->use()) << "not usable any more: " << tarn_error.getReasonList();
        }
        m_subject.reset();
        bool const has_collector = strcmp(m_row.name, "ProcessTNG") == 0;
        EXPECT_TRUE(has_collector || support::hasThreads(m_threads));
        EXPECT_TRUE(has_collector || descriptors == support::countDescriptors());
        if (m_events) {
            std::string const text = m_events->getText();
            EXPECT_TRUE(text.empty() || (m_letter == 'r' && text.find("WARNING") == 0)) << text;
        }
    }

private:
    /// The thread that made the object is terminated.
    void terminateMaker() {
        std::atomic<bool> made{false};
        Worker maker([&] {
            m_subject = m_row.make();
            EXPECT_FALSE(m_subject->use());
            made = true;
            runUntilTerminated();
        });
        EXPECT_TRUE(support::eventually([&] { return made.load(); }));
        maker.terminate();
    }

    void reach() {
        switch (m_state) {
        case IDLE:
            happen();
            break;
        case USED:
            happenDuringUse();
            break;
        case IN_CALLBACK:
            happenInCallback();
            break;
        case WAITING:
            happenDuringWait();
            break;
        }
    }

    void happenDuringUse() {
        std::atomic<bool> ends{false};
        std::atomic<int> rounds{0};
        Worker user([&] {
            while (!ends) {
                EXPECT_FALSE(m_subject->use());
                ++rounds;
                pthread_testcancel();
            }
        });
        EXPECT_TRUE(support::eventually([&] { return rounds > 3; }));
        m_worker = &user;
        happen();
        ends = true;
    }

    void happenInCallback() {
        m_subject->in_callback = [this] {
            if (m_arrived.exchange(true)) {
                return;
            }
            if (m_event != TERMINATED) {
                happen();
            } else if (m_row.callbacks == Callbacks::OF_WAITER) {
                runUntilTerminated();
            } else {
                m_happened = true;
                pthread_cancel(pthread_self());
                pthread_testcancel();
                return; // Reached in threads of the library: these cannot be canceled.
            }
            m_happened = true;
        };
        if (m_row.callbacks != Callbacks::OF_WAITER) {
            m_subject->trigger();
            EXPECT_TRUE(support::eventually([this] { return m_happened.load(); }));
            return;
        }
        {
            Worker waiter([this] { m_subject->wait(); });
            m_subject->trigger();
            EXPECT_TRUE(support::eventually([this] { return m_arrived.load(); }));
            if (m_event == TERMINATED) {
                waiter.terminate();
            } else {
                EXPECT_TRUE(support::eventually([this] { return m_happened.load(); }));
                m_subject->wake();
            }
        }
        waitOnce();
    }

    void happenDuringWait() {
        m_subject->prepareWait();
        {
            std::atomic<bool> waits{false};
            std::optional<Worker> waiter;
            if (m_event != DESTROYED) { // Otherwise the destructor waits.
                waiter.emplace([&] {
                    waits = true;
                    m_subject->wait();
                    pthread_testcancel();
                });
                EXPECT_TRUE(support::eventually([&] { return waits.load(); }));
                if (strstr(m_row.name, "SpinLock") == nullptr) {
                    waiter->awaitSleep();
                }
                m_worker = &*waiter;
            }
            happen();
            if (m_letter != 'w') {
                m_subject->wake();
            }
        }
        if (m_event != DESTROYED) {
            waitOnce();
        }
    }

    /// A new thread can wait for the object, and ends when it is woken.
    void waitOnce() {
        if (m_row.callbacks == Callbacks::OF_WAITER) {
            m_subject->in_callback = [] {};
        }
        m_subject->prepareWait();
        Worker const waiter([this] { m_subject->wait(); });
        m_subject->wake();
    }

    /// The event itself.
    void happen() {
        switch (m_event) {
        case DESTROYED:
            return m_letter == 'w' ? destroyInThread() : m_subject->destroy();
        case TERMINATED:
            m_worker->terminate();
            if (m_letter == 'w') {
                EXPECT_FALSE(m_worker->hasEnded());
                m_subject->wake();
            }
            EXPECT_TRUE(support::eventually([this] { return m_worker->hasEnded(); })) << "not terminated";
            return;
        case EXITS:
            endHere();
        case FORKS:
            return forkHere();
        case UNLOADED:
            break;
        }
    }

    void destroyInThread() {
        Worker const destroyer([this] { m_subject->destroy(); });
        destroyer.awaitSleep();
        EXPECT_FALSE(destroyer.hasEnded());
        m_subject->wake();
    }

    void forkHere() {
        pid_t const child = fork();
        if (child == 0) {
            alarm(60);
            bool const uses = m_letter == 'f' && !HAS_RUNTIME_WITH_LOCKS;
            *m_result = uses && m_row.make()->use() ? 2 : 1;
            _exit(0);
        }
        EXPECT_GT(child, 0);
        EXPECT_TRUE(support::eventually([this] { return *m_result != 0; })) << "the child hangs";
        EXPECT_EQ(1, *m_result) << "the child cannot use a new object";
        int status = 0;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {} // The collector may reap it instead.
    }

    Class const& m_row;
    Event m_event;
    State m_state;
    char m_letter;
    int m_threads = support::countThreads();
    support::SharedObject<std::atomic<int>> m_result{0};
    std::optional<support::EventRecorder> m_events;
    std::unique_ptr<Subject> m_subject;
    Worker* m_worker = nullptr;
    std::atomic<bool> m_arrived{false}; // In the callback, which may come again later.
    std::atomic<bool> m_happened{false};
};

struct Row {
    Class const* its_class;
    Event event;
    State state;
};

/// Returns the cells that can be driven here.
std::vector<Row> getRows() {
    std::vector<Row> rows;
    for (Class const& row : life::getClasses()) {
        for (int event = 0; event < 5; ++event) {
            for (int state = 0; state < 4; ++state) {
                if (strchr("dx-", getLetters(row, event)[state]) == nullptr) {
                    rows.push_back({&row, static_cast<Event>(event), static_cast<State>(state)});
                }
            }
        }
    }
    return rows;
}

class LifeCycle : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(All, LifeCycle, testing::ValuesIn(getRows()), [](auto const& row) {
    return std::string(row.param.its_class->name) + "_" + EVENTS[row.param.event] + STATES[row.param.state];
});

TEST_P(LifeCycle, isAsTheMatrixSays) {
    auto const& [row, event, state] = GetParam();
    char const letter = getLetters(*row, event)[state];
    if (std::string_view(row->name) == "NetDeviceMonitor" && state != IDLE && state != USED) {
        VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
    }
    if (event == TERMINATED && state != IDLE) {
        VESK_SKIP_WITHOUT_CANCELLATION();
        VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN();
        if (!support::FOLLOWS_CANCELED_THREADS) {
            GTEST_SKIP() << "the thread sanitizer does not follow a thread that is canceled in a system call";
        }
    }
    support::ChildEnd const end =
        support::runInChild([&, its_row = row, its_event = event, its_state = state] {
            Cell(*its_row, its_event, its_state).run();
        });
    if (letter == 'a') {
        EXPECT_EQ(SIGABRT, end.signal) << end.output;
        EXPECT_NE(std::string::npos, end.errors.find("thread still running")) << end.errors;
        return;
    }
    EXPECT_EQ(0, end.exit_code) << "signal " << end.signal << "\n" << end.output;
    EXPECT_EQ("", end.errors);
}

TEST(LifeCycleMatrix, hasNoEmptyCell) {
    for (Class const& row : life::getClasses()) {
        for (int event = 0; event < 5; ++event) {
            std::string const letters = getLetters(row, event);
            char const* const allowed[] = {"owax-", "owax-", "o-", "fer-", "dx-"};
            EXPECT_EQ(4U, letters.size()) << row.name;
            EXPECT_EQ(std::string::npos, letters.find_first_not_of(allowed[event])) << row.name << letters;
            EXPECT_EQ(row.callbacks == Callbacks::NONE, letters[IN_CALLBACK] == '-') << row.name;
            EXPECT_EQ(!row.waits, letters[WAITING] == '-') << row.name;
            EXPECT_NE('-', letters[IDLE]) << row.name;
            EXPECT_NE('-', letters[USED]) << row.name;
        }
    }
}

} // namespace
