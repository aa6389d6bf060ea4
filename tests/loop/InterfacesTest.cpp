#include "LoopSupport.h"
#include "support/Emulation.h"
#include "support/Inject.h"
#include "support/NetworkNamespace.h"

#include <vesk/loop/Interfaces.h>

#include <algorithm>
#include <sys/socket.h>

VESK_INJECT_ERRNO(int, -1, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol))

namespace {

using namespace support;
using vesk::loop::InterfaceEvent;
using vesk::loop::watchInterfaces;

using Texts = std::vector<std::string>;

/// Records the events of a loop's watch of the interfaces.
struct Recorder {
    static std::string describe(InterfaceEvent const& event) {
        constexpr char const* KINDS[] = {"appeared", "status", "disappeared", "added", "removed"};
        bool const has_address = event.kind >= InterfaceEvent::ADDRESS_ADDED;
        return std::string(KINDS[event.kind]) + ' ' + event.interface.name +
            (has_address ? ' ' + event.address.address.getText() : "");
    }
    bool has(std::string const& text) const { return std::count(log.begin(), log.end(), text) != 0; }
    /// Waits for an event, and forgets all up to it.
    testing::AssertionResult waitFor(std::string const& text) {
        auto const outcome = runUntil(loop, [&] { return has(text); });
        log.erase(log.begin(), outcome ? std::find(log.begin(), log.end(), text) + 1 : log.end());
        return outcome;
    }

    Loop loop;
    Texts log;
    Watch watch = valueOf(watchInterfaces(
        loop, [this](auto const& event) { log.push_back(event ? describe(*event) : event.error().text()); }));
};

VESK_MONITOR_TEST(InterfacesTest, reportsWhatThereIsAndThenEachChange) {
    Recorder recorder;
    EXPECT_TRUE(recorder.waitFor("appeared lo"));
    EXPECT_TRUE(recorder.waitFor("status lo"));
    EXPECT_TRUE(recorder.waitFor("added lo 127.0.0.1"));
    ASSERT_TRUE(makePair("left", "right"));
    EXPECT_TRUE(recorder.waitFor("appeared left"));
    ASSERT_TRUE(setUp("left"));
    ASSERT_TRUE(addAddress("left", "10.0.0.1/24"));
    EXPECT_TRUE(recorder.waitFor("added left 10.0.0.1"));
    ASSERT_TRUE(removeAddress("left", "10.0.0.1/24"));
    EXPECT_TRUE(recorder.waitFor("removed left 10.0.0.1"));
    ASSERT_TRUE(removeInterface("left"));
    EXPECT_TRUE(recorder.waitFor("disappeared left"));
}

VESK_MONITOR_TEST(InterfacesTest, callbackThatThrowsLosesNoOtherEvent) {
    Loop loop;
    size_t exceptions = 0;
    Texts log;
    loop.setExceptionHook([&](std::exception_ptr const&) { ++exceptions; });
    Watch const watch = valueOf(watchInterfaces(loop, [&](auto const& event) {
        log.push_back(Recorder::describe(*event));
        throw exceptions;
    }));
    EXPECT_TRUE(runUntil(loop, [&] { return !log.empty() && log.back() == "added lo 127.0.0.1"; }));
    EXPECT_EQ(log.size(), exceptions);
}

TEST(InterfacesFailure, refusalOfTheMonitorIsTheOnlyCall) {
    size_t calls = 0;
    Loop loop;
    Fault const fault(inject_socket, EMFILE, 1, 1, Fault::Threads::OTHERS);
    Watch const watch = valueOf(watchInterfaces(loop, [&](auto const& event) {
        ++calls;
        ASSERT_FALSE(event);
        EXPECT_EQ(vesk::loop::LoopErrorId::INTERFACES_REFUSED, event.error().head().getID());
        EXPECT_LT(1u, event.error().count()) << "with the cause: " << event.error();
    }));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ(1u, calls);
    EXPECT_FALSE(watch.isActive());
}

TEST(InterfacesFailure, childOfForkLeavesTheMonitorOfItsParentAlone) {
    VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
    Recorder recorder;
    EXPECT_TRUE(recorder.waitFor("status lo"));
    pid_t const child = fork();
    if (child == 0) {
        bool const refused = !watchInterfaces(recorder.loop, [](auto const&) {});
        recorder.watch = Watch();
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(recorder.loop.runOnce(1ms));
    EXPECT_TRUE(recorder.watch.isActive());
    EXPECT_EQ(0, std::count_if(recorder.log.begin(), recorder.log.end(), [](std::string const& text) {
                  return text.find("cannot") != std::string::npos;
              }));
}

} // namespace
