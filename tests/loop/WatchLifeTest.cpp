#include "LoopSupport.h"
#include "support/Descriptors.h"
#include "support/Emulation.h"
#include "support/TempFolder.h"

#include <vesk/loop/Datagram.h>
#include <vesk/loop/FileWatch.h>
#include <vesk/loop/Interfaces.h>
#include <vesk/loop/Listener.h>

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

class DateSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        return valueOf(loop.atDate(std::chrono::system_clock::now() + 1ms, std::move(callback)));
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

class ConnectionSubject : public Subject {
public:
    ConnectionSubject() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_ends)); }
    ~ConnectionSubject() override { close(m_ends[1]); }

private:
    Watch watch(Loop& loop, std::function<void()> callback) override {
        auto connection = valueOf(vesk::loop::Connection::adopt(loop, vesk::loop::Fd(m_ends[0])));
        EXPECT_TRUE(connection.onData([callback](std::string_view) { callback(); }));
        return std::move(connection);
    }
    void makeDue() override { (void)send(m_ends[1], "x", 1, MSG_NOSIGNAL); }
    int m_ends[2];
};

class ListenerSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        auto listener =
            valueOf(vesk::loop::Listener::open(loop, "127.0.0.1:0", [callback](auto const&) { callback(); }));
        m_address = listener.address();
        return std::move(listener);
    }
    void makeDue() override {
        m_client = vesk::loop::Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        (void)connect(m_client.get(), m_address.get(), m_address.size());
    }
    vesk::loop::Address m_address;
    vesk::loop::Fd m_client;
};

class DatagramSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        auto datagram = valueOf(vesk::loop::Datagram::open(
            loop, "127.0.0.1:0", [callback](auto const&, auto const&) { callback(); }));
        m_address = datagram.address();
        return std::move(datagram);
    }
    void makeDue() override {
        vesk::loop::Fd const sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(1, sendto(sender.get(), "x", 1, 0, m_address.get(), m_address.size()));
    }
    vesk::loop::Address m_address;
};

class FileSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        auto files = valueOf(vesk::loop::FileWatch::open(loop, [callback](auto const&) { callback(); }));
        EXPECT_TRUE(files.add(m_folder.getPath()));
        return std::move(files);
    }
    void makeDue() override { EXPECT_EQ(0, mkdir((m_folder / "x").c_str(), 0700)); }
    TempFolder m_folder;
};

class LookUpSubject : public Subject {
public:
    /// Waits for the thread of a look-up that the loop does not wait for any more.
    ~LookUpSubject() override {
        EXPECT_TRUE(eventually([this] { return countDescriptors() == m_descriptors; }));
    }

private:
    Watch watch(Loop& loop, std::function<void()> callback) override {
        return valueOf(vesk::loop::lookUp(loop, "127.0.0.1:7", [callback](auto const&) { callback(); }));
    }
    void makeDue() override { std::this_thread::sleep_for(2ms); }
    int const m_descriptors = countDescriptors();
};

class InterfacesSubject : public Subject {
    Watch watch(Loop& loop, std::function<void()> callback) override {
        return valueOf(vesk::loop::watchInterfaces(loop, [callback](auto const&) { callback(); }));
    }
    void makeDue() override { std::this_thread::sleep_for(2ms); }
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
    {"readable", makeSubject<ReadableSubject>},     {"writable", makeSubject<WritableSubject>},
    {"signal", makeSubject<SignalSubject>},         {"child", makeSubject<ChildSubject>},
    {"timer", makeSubject<TimerSubject>},           {"idle", makeSubject<IdleSubject>},
    {"connection", makeSubject<ConnectionSubject>}, {"listener", makeSubject<ListenerSubject>},
    {"datagram", makeSubject<DatagramSubject>},     {"file", makeSubject<FileSubject>},
    {"lookUp", makeSubject<LookUpSubject>},         {"date", makeSubject<DateSubject>},
    {"interfaces", makeSubject<InterfacesSubject>},
};

class WatchLife : public testing::TestWithParam<Kind> {
protected:
    WatchLife() : m_subject(GetParam().make()) {}

    void SetUp() override {
        if (std::string_view(GetParam().name) == "interfaces") {
            VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
        }
    }

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
