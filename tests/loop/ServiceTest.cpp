#include "LoopSupport.h"
#include "support/Child.h"
#include "support/TempFolder.h"

#include <vesk/loop/Datagram.h>
#include <vesk/loop/ServiceManager.h>
#include <vesk/loop/Watchdog.h>

#include <cstdlib>

namespace {

using namespace support;
using vesk::loop::Address;
using vesk::loop::Datagram;
using vesk::loop::Place;
using vesk::loop::ServiceManager;
using vesk::loop::Watchdog;

// ---- the service manager ----

class ServiceManagerTest : public testing::Test {
protected:
    ~ServiceManagerTest() override {
        for (char const* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
            unsetenv(name);
        }
    }
    /// Returns what the manager got.
    std::string receive() {
        text.clear();
        EXPECT_TRUE(runUntil(loop, [this] { return !text.empty(); }));
        return text;
    }

    TempFolder folder;
    Loop loop;
    std::string text;
    Datagram manager;
    void openManager(std::string const& path) {
        manager = Datagram();
        manager = valueOf(Datagram::open(
            loop, "unix:" + path, [this](std::string_view data, Address const&) { text = data; }));
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
};

TEST_F(ServiceManagerTest, getsTheStatesAtBothKindsOfSockets) {
    for (std::string const& path : {folder / "notify", std::string("@vesk-loop-notify")}) {
        openManager(path);
        EXPECT_TRUE(valueOf(ServiceManager::ready()));
        EXPECT_EQ("READY=1", receive());
        EXPECT_TRUE(valueOf(ServiceManager::status("half done")));
        EXPECT_EQ("STATUS=half done", receive());
        EXPECT_TRUE(valueOf(ServiceManager::reloading()));
        EXPECT_EQ(0u, receive().find("RELOADING=1\nMONOTONIC_USEC="));
        EXPECT_TRUE(valueOf(ServiceManager::stopping()));
        EXPECT_EQ("STOPPING=1", receive());
    }
}

TEST_F(ServiceManagerTest, isNotThereOrCannotBeReached) {
    EXPECT_FALSE(valueOf(ServiceManager::ready()));
    EXPECT_TRUE(ServiceManager::status("two\nlines").error() == std::errc::invalid_argument);
    struct Row {
        std::string path;
        std::errc error;
    };
    for (Row const& row :
         {Row{folder / "none", std::errc::no_such_file_or_directory},
          Row{"relative", std::errc::address_family_not_supported},
          Row{"/" + std::string(200, 'x'), std::errc::filename_too_long}}) {
        setenv("NOTIFY_SOCKET", row.path.c_str(), 1);
        EXPECT_TRUE(ServiceManager::ready().error() == row.error) << row.path;
    }
}

TEST_F(ServiceManagerTest, doesNotBlockTheServiceIfItDoesNotRead) {
    openManager(folder / "notify");
    std::error_code code;
    for (int sent = 0; sent < 10000 && !code; ++sent) {
        code = ServiceManager::ready().code();
    }
    EXPECT_EQ(std::errc::resource_unavailable_try_again, code);
}

TEST_F(ServiceManagerTest, getsSignsOfLifeIfItWantsThemOfThisProcess) {
    openManager(folder / "notify");
    setenv("WATCHDOG_USEC", "4000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    Timer const alive = valueOf(ServiceManager::keepAlive(loop));
    EXPECT_EQ("WATCHDOG=1", receive());
    EXPECT_EQ("WATCHDOG=1", receive());
    for (auto const& row : {std::pair("WATCHDOG_PID", "1"), std::pair("WATCHDOG_USEC", "0")}) {
        setenv(row.first, row.second, 1);
        EXPECT_FALSE(valueOf(ServiceManager::keepAlive(loop)).isActive());
    }
}

// ---- the watchdog ----

TEST(WatchdogTest, reportsACallbackThatIsStuckOnceWithItsPlace) {
    Loop loop;
    std::atomic<int> reports{0};
    int line = 0;
    auto const wait = [&] {
        EXPECT_TRUE(eventually([&] { return reports != 0; }));
        std::this_thread::sleep_for(10ms);
        EXPECT_EQ(1, reports.exchange(0)) << "once for each call";
    };
    Watchdog const watchdog = valueOf(Watchdog::start(loop, 4ms, [&](Place const& place) {
        line = place.line;
        ++reports;
    }));
    int const expected = __LINE__ + 1;
    Timer const timer = valueOf(loop.after(0s, wait));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ(expected, line);
    EXPECT_TRUE(loop.post(wait));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ(0, line) << "a posted call";
    EXPECT_FALSE(valueOf(loop.runOnce(20ms)));
    EXPECT_EQ(0, reports) << "waiting is not being stuck";
}

TEST(WatchdogTest, mayBeDestroyedAnywhere) {
    Loop loop;
    std::atomic<bool> is_over{false};
    Watchdog watchdog;
    watchdog = valueOf(Watchdog::start(loop, 1ms, [&](Place const&) {
        watchdog = Watchdog();
        is_over = true;
    }));
    EXPECT_TRUE(loop.post([&] { EXPECT_TRUE(eventually([&] { return is_over.load(); })); }));
    EXPECT_TRUE(loop.runOnce());
    auto other = std::make_unique<Loop>();
    watchdog = valueOf(Watchdog::start(*other, 1ms, [](Place const&) { FAIL(); }));
    other.reset();
    std::this_thread::sleep_for(3ms);
}

} // namespace
