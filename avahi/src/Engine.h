#pragma once

#include <vesk/DnsSd.h>
#include <vesk/Thread.h>
#include <vesk/common/UniqueFd.h>

#include <avahi-client/client.h>
#include <avahi-common/simple-watch.h>

#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vesk::avahi {

class Operation;

using TimePoint = std::chrono::steady_clock::time_point;
constexpr TimePoint NEVER = TimePoint::max();
/// The pause between two attempts.
constexpr std::chrono::seconds PAUSE(1);

/// The engine on the daemon. The callers only enter their operations in a list; one thread talks to the daemon
/// and calls the clients, without a lock. A daemon or bus that does not answer therefore blocks no caller.
class Engine : public DnsSd::Engine, private tarnbase::NonCopyable {
public:
    using Client = DnsSdBase::Client;
    using String = std::unicode::String;

    /// Starts the thread. Throws `std::bad_alloc` or `std::runtime_error`.
    Engine();
    ~Engine() override;

    void browse(Client& client, std::string const& type, std::string const& domain) override;
    void
    resolve(Client& client, String const& name, std::string const& type, std::string const& domain) override;
    void lookup(Client& client, std::string const& name) override;
    void publish(
        Client& client, String const& name, std::string const& type, std::string const& domain,
        unsigned short port, DnsSdBase::Txt const& txt) override;
    void cancel(Client& client) override;

    /// Calls the client of an operation, unless it is canceled. Returns true, after a warning, without memory. Used by
    /// the thread only.
    template <typename Call>
    [[nodiscard]] bool report(Operation const& operation, Call const& call) {
        Client* const client = beginCall(operation);
        if (client == nullptr) {
            return false;
        }
        bool const failed = hasNoMemory([&] { call(*client); });
        endCall();
        return failed;
    }

    /// Calls a function. Returns true, after a warning, without memory.
    template <typename Call>
    [[nodiscard]] static bool hasNoMemory(Call const& call) {
        try {
            call();
            return false;
        } catch (std::bad_alloc const&) {
            warnNoMemory();
            return true;
        }
    }

    /// Returns the name of an instance before `sanitize`, if a browser has reported it; else `name`. Used by the thread
    /// only.
    std::string findRaw(std::string const& name, std::string const& type, std::string const& domain) const;

private:
    using Operations = std::list<std::unique_ptr<Operation>>;
    struct FreePoll {
        void operator()(AvahiSimplePoll* poll) const noexcept { avahi_simple_poll_free(poll); }
    };

    static void onState(AvahiClient* daemon, AvahiClientState state, void* engine) noexcept;
    static void onWakeUp(AvahiWatch* watch, int fd, AvahiWatchEvent events, void* engine) noexcept;
    static void warnNoMemory() noexcept;

    void enter(std::unique_ptr<Operation> operation);
    Client* beginCall(Operation const& operation);
    void endCall();
    void wakeUp() const noexcept;
    void run();
    [[nodiscard]] bool step(Operations& gone);
    bool takeChanges(Operations& gone);
    void connect(TimePoint now);
    void disconnect();
    int advance();

    detail::UniqueFd m_wake_fd;
    std::unique_ptr<AvahiSimplePoll, FreePoll> m_poll;
    AvahiClient* m_daemon = nullptr;
    AvahiClientState m_state = AVAHI_CLIENT_CONNECTING;
    TimePoint m_connect_at{};
    std::vector<Operation*> m_known; // The thread's own copy of `m_operations`.

    std::mutex m_mutex;
    std::condition_variable m_call_ended;
    Operations m_operations;
    Client* m_called = nullptr;
    bool m_ends = false;

    std::unique_ptr<Thread> m_thread; // Last: it uses the other fields.
};

} // namespace vesk::avahi
