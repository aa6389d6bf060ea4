#include <vesk/loop/Interfaces.h>

#include "Composite.h"
#include "SignalsBlocked.h"

#include <vesk/NetDeviceMonitor.h>
#include <vesk/common/CancellationOff.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <mutex>
#include <optional>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Interfaces";

/// The monitor, for its thread and for the loop. The semaphore counts what the loop has to call back for.
class SharedMonitor final : NetDeviceMonitor::Listener {
public:
    SharedMonitor() : semaphore(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)) {
        std::ErrorStorage const store(nullptr);
        m_monitor.emplace(static_cast<Listener*>(this));
        if (std::ErrorStorage::get() != nullptr) {
            throw std::bad_alloc();
        }
    }

    /// Starts the thread. Returns an error number, 0 on success.
    int start() {
        try {
            SignalsBlocked const blocked; // The thread inherits that.
            m_thread = std::thread([this] { watch(); });
        } catch (std::system_error const& error) {
            return error.code().value();
        }
        return 0;
    }
    /// Ends the thread, which calls nothing of the user.
    void stop() {
        m_is_stopped = true;
        m_monitor->stopWatching();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    /// Returns the oldest event. The error is the last one.
    Result<InterfaceEvent> take() {
        eventfd_t count = 0;
        eventfd_read(semaphore.get(), &count);
        std::lock_guard<std::mutex> const held(m_mutex);
        if (m_events.empty()) {
            return *m_error;
        }
        InterfaceEvent event = std::move(m_events.front());
        m_events.pop_front();
        return event;
    }
    bool isLast() {
        std::lock_guard<std::mutex> const held(m_mutex);
        return m_events.empty() && m_error.has_value();
    }

    UniqueFd const semaphore;
    int const creation_error = semaphore.isOpen() ? 0 : errno;

private:
    void watch() {
        std::ErrorStorage const store(nullptr);
        std::optional<Error> error;
        try {
            (void)m_monitor->watch();
            std::ErrorOutput(SOURCE, __LINE__, false)(LoopErrorId::INTERFACES_REFUSED);
            error = Error::take();
        } catch (std::bad_alloc const&) {
            error = makeError(SOURCE, std::CommonErrorId::OUT_OF_MEMORY);
        }
        if (!m_is_stopped) {
            std::lock_guard<std::mutex> const held(m_mutex);
            m_error = std::move(error);
            eventfd_write(semaphore.get(), 1);
        }
    }

    void interface_appeared(Info const& info) override { add(InterfaceEvent::APPEARED, info, {}); }
    void interface_status(Info const& info) override { add(InterfaceEvent::STATUS, info, {}); }
    void interface_disappeared(Info const& info) override { add(InterfaceEvent::DISAPPEARED, info, {}); }
    void address_operable(AddrInfo const& address, Info const& info) override {
        add(InterfaceEvent::ADDRESS_ADDED, info, address);
    }
    void address_inoperable(AddrInfo const& address, Info const& info) override {
        add(InterfaceEvent::ADDRESS_REMOVED, info, address);
    }
    void add(InterfaceEvent::Kind kind, Info const& info, AddrInfo const& address) {
        std::lock_guard<std::mutex> const held(m_mutex);
        m_events.push_back({kind, info, address});
        eventfd_write(semaphore.get(), 1);
    }

    std::optional<NetDeviceMonitor> m_monitor;
    std::atomic<bool> m_is_stopped{false};
    std::mutex m_mutex;
    std::deque<InterfaceEvent> m_events;
    std::optional<Error> m_error; ///< After the events.
    std::thread m_thread;
};

/// A watch of the interfaces. Each call is for one event.
class InterfaceSource final : public FdSource {
public:
    InterfaceSource(
        std::shared_ptr<Core> core, Options options, std::unique_ptr<SharedMonitor> monitor,
        Callback<void(Result<InterfaceEvent> const&)> callback)
        : FdSource(std::move(core), options, monitor->semaphore.get(), false, Trigger::LEVEL),
          m_monitor(std::move(monitor)),
          m_callback(std::move(callback)) {}
    ~InterfaceSource() override {
        vesk::detail::CancellationOff const cancellation_off;
        if (getCore().getState() == ECHILD) {
            (void)m_monitor.release(); // The thread, and what wakes it, are those of the parent.
        } else {
            m_monitor->stop();
        }
    }

    int begin() { return m_monitor->start(); }
    Call prepare() noexcept override { return m_monitor->isLast() ? Call::LAST : Call::AGAIN; }
    void fire() override { m_callback(m_monitor->take()); }

private:
    std::unique_ptr<SharedMonitor> m_monitor;
    Callback<void(Result<InterfaceEvent> const&)> m_callback;
};

} // namespace

Result<Watch>
watchInterfaces(Loop& loop, Callback<void(Result<InterfaceEvent> const&)> callback, Options options) {
    return withoutThrowing(SOURCE, [&]() -> Result<Watch> {
        auto const& core = Access::getCore(loop);
        int error = core->getState();
        if (error == 0) {
            auto monitor = std::make_unique<SharedMonitor>();
            error = monitor->creation_error;
            auto source =
                std::make_shared<InterfaceSource>(core, options, std::move(monitor), std::move(callback));
            error = error != 0 ? error : core->attach(*source);
            Watch watch = Access::make<Watch>(source);
            error = error != 0 ? error : source->begin();
            if (error == 0) {
                return watch;
            }
        }
        return makeError(SOURCE, error, LoopErrorId::INTERFACES_REFUSED);
    });
}

} // namespace vesk::loop
