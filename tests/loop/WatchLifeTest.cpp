#include "LoopSupport.h"

/// Each kind of watch, destroyed at each moment and from each place: its callback neither runs nor will run when the
/// destructor has returned, and what it holds is destroyed.

namespace {

using namespace support;

/// A watch that becomes due when it is asked to, and again and again if it can.
class Subject {
public:
    virtual ~Subject() = default;
    virtual Watch watch(Loop& loop, std::function<void()> callback) = 0;
    virtual void makeDue() = 0;
};

class ReadableSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        return valueOf(loop.onReadable(m_pipe.getReader(), std::move(callback)));
    }
    void makeDue() override { m_pipe.write("x"); }
    TestPipe m_pipe;
};

class WritableSubject : public Subject {
public:
    WritableSubject() {
        std::string const full(65536, 'x');
        while (write(m_pipe.getWriter(), full.data(), full.size()) > 0) {}
    }

private:
    Watch watch(Loop& loop, std::function<void()> callback) override {
        return valueOf(loop.onWritable(m_pipe.getWriter(), std::move(callback)));
    }
    void makeDue() override {
        while (!m_pipe.read(65536).empty()) {}
    }
    TestPipe m_pipe;
};

class TimerSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        return valueOf(loop.every(1ms, std::move(callback)));
    }
    void makeDue() override { std::this_thread::sleep_for(2ms); }
};

class SignalSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        return valueOf(loop.onSignal(SIGUSR1, std::move(callback), Priority::NORMAL));
    }
    void makeDue() override { kill(getpid(), SIGUSR1); }
};

class ChildSubject : public Subject {
public:
    ~ChildSubject() override { waitpid(m_child, nullptr, 0); }

private:
    Watch watch(Loop& loop, std::function<void()> callback) override {
        m_child = startChild(0, m_gate.getReader());
        return valueOf(loop.onExit(m_child, [callback](Exit const&) { callback(); }));
    }
    void makeDue() override {
        m_gate.write("x");
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(m_child), &info, WEXITED | WNOWAIT);
    }
    pid_t m_child = -1;
    TestPipe m_gate;
};

class IdleSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        return valueOf(loop.onIdle(std::move(callback)));
    }
    void makeDue() override {}
};

struct Kind {
    char const* name;
    std::unique_ptr<Subject> (*make)();
};
template <typename S>
std::unique_ptr<Subject> makeSubject() {
    return std::make_unique<S>();
}
constexpr Kind KINDS[] = {
    {"readable", makeSubject<ReadableSubject>}, {"writable", makeSubject<WritableSubject>},
    {"signal", makeSubject<SignalSubject>},     {"child", makeSubject<ChildSubject>},
    {"timer", makeSubject<TimerSubject>},       {"idle", makeSubject<IdleSubject>},
};

class WatchLife : public testing::TestWithParam<Kind> {
protected:
    WatchLife() : m_subject(GetParam().make()) {}

    void watch(std::function<void()> callback) {
        auto held = std::make_shared<int>(0);
        m_held = held;
        m_watch = m_subject->watch(*m_loop, [this, callback, held = std::move(held)] {
            ++m_calls;
            callback();
            EXPECT_FALSE(m_held.expired()) << "the callback that runs keeps what it holds";
        });
    }
    void runAgain() {
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(m_loop->runOnce(1ms));
        }
    }

    std::unique_ptr<Subject> m_subject;
    std::unique_ptr<Loop> m_loop = std::make_unique<Loop>();
    Watch m_watch;
    std::weak_ptr<int> m_held;
    std::atomic<int> m_calls{0};
};

TEST_P(WatchLife, destroyedBeforeItIsDueIsNeverCalled) {
    watch([] {});
    m_watch = Watch();
    EXPECT_TRUE(m_held.expired());
    m_subject->makeDue();
    runAgain();
    EXPECT_EQ(0, m_calls);
}

TEST_P(WatchLife, destroyedWhenItIsDueIsNeverCalled) {
    watch([] {});
    m_subject->makeDue();
    m_watch.cancel();
    EXPECT_TRUE(m_held.expired());
    runAgain();
    EXPECT_EQ(0, m_calls);
}

TEST_P(WatchLife, destroyedInItsOwnCallbackIsCalledOnce) {
    watch([this] {
        m_watch = Watch();
        EXPECT_FALSE(m_watch.isActive());
    });
    m_subject->makeDue();
    EXPECT_TRUE(runUntil(*m_loop, [this] { return m_calls == 1; }));
    EXPECT_TRUE(m_held.expired());
    runAgain();
    EXPECT_EQ(1, m_calls);
}

TEST_P(WatchLife, destroyedInTheCallbackOfAnotherWatchOfTheSameRoundIsNotCalled) {
    watch([] {});
    m_subject->makeDue();
    Timer const other = valueOf(m_loop->after(
        0s,
        [this] {
            m_watch = Watch();
            EXPECT_TRUE(m_held.expired());
        },
        Priority::HIGH));
    EXPECT_TRUE(runUntil(*m_loop, [&other] { return !other.isActive(); }));
    runAgain();
    EXPECT_EQ(0, m_calls);
}

TEST_P(WatchLife, destroyedInAnotherThreadWaitsForTheCallbackThatRuns) {
    std::atomic<bool> is_over{false};
    watch([&is_over] {
        std::this_thread::sleep_for(20ms);
        is_over = true;
    });
    m_subject->makeDue();
    std::thread other([&] {
        EXPECT_TRUE(eventually([this] { return m_calls != 0; }));
        m_watch = Watch();
        EXPECT_TRUE(is_over);
        int const calls = m_calls;
        std::this_thread::sleep_for(5ms);
        EXPECT_EQ(calls, m_calls);
        m_loop->stop();
    });
    EXPECT_TRUE(m_loop->run());
    other.join();
    EXPECT_TRUE(m_held.expired());
}

TEST_P(WatchLife, destroyedAfterItsLoopIsNoLongerActive) {
    watch([] {});
    m_subject->makeDue();
    m_loop.reset();
    EXPECT_FALSE(m_watch.isActive());
    EXPECT_FALSE(m_held.expired()) << "it belongs to the watch";
    m_watch = Watch();
    EXPECT_TRUE(m_held.expired());
    EXPECT_EQ(0, m_calls);
}

TEST_P(WatchLife, movedWatchStaysActive) {
    watch([] {});
    Watch other = std::move(m_watch);
    EXPECT_FALSE(m_watch.isActive());
    EXPECT_TRUE(other.isActive());
    m_subject->makeDue();
    EXPECT_TRUE(runUntil(*m_loop, [this] { return m_calls != 0; }));
}

INSTANTIATE_TEST_SUITE_P(All, WatchLife, testing::ValuesIn(KINDS), [](auto const& row) {
    return std::string(row.param.name);
});

} // namespace
