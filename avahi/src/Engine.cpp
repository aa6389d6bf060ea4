#include "Engine.h"

#include "Operation.h"

#include <vesk/common/CancellationOff.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <pthread.h>
#include <stdexcept>
#include <sys/eventfd.h>

namespace vesk::avahi {

using vesk::detail::CancellationOff;

namespace {

/// Blocks all signals of the calling thread, so that a thread that it creates accepts none.
class SignalsOff : private tarnbase::NonCopyable {
public:
    SignalsOff() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsOff() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before{};
};

/// Keeps the action of SIGPIPE, which the library of the message bus changes with each connection.
class SigpipeKept : private tarnbase::NonCopyable {
public:
    SigpipeKept() noexcept { sigaction(SIGPIPE, nullptr, &m_before); }
    ~SigpipeKept() { sigaction(SIGPIPE, &m_before, nullptr); }

private:
    struct sigaction m_before {};
};

} // namespace

Engine::Engine() : m_wake_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_poll(avahi_simple_poll_new()) {
    AvahiPoll const* const poll = m_poll ? avahi_simple_poll_get(m_poll.get()) : nullptr;
    bool failed = !m_wake_fd.isOpen() || poll == nullptr ||
        poll->watch_new(poll, m_wake_fd.get(), AVAHI_WATCH_IN, &onWakeUp, this) == nullptr;
    if (!failed) {
        SignalsOff const signals_off;
        // The constructor creates the thread, with the blocked signals of the caller.
        m_thread = std::make_unique<Thread>(
            [](void* engine) { static_cast<Engine*>(engine)->run(); }, this, "vesk::Avahi");
        failed = m_thread->start();
    }
    if (failed) {
        std::ErrorStorage::ack();
        throw std::runtime_error("the engine on Avahi cannot start its thread");
    }
}

Engine::~Engine() {
    CancellationOff const cancellation_off;
    {
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_ends = true;
    }
    wakeUp();
    if (m_thread->join()) {
        std::ErrorStorage::ack();
    }
}

// ---- any thread ----

void Engine::browse(Client& client, std::string const& type, std::string const& domain) {
    enter(makeBrowser(*this, client, type, domain));
}

void Engine::resolve(Client& client, String const& name, std::string const& type, std::string const& domain) {
    enter(makeResolver(*this, client, name.toUTF8(), type, domain));
}

void Engine::lookup(Client& client, std::string const& name) {
    enter(makeLookup(*this, client, name));
}

void Engine::publish(
    Client& client, String const& name, std::string const& type, std::string const& domain,
    unsigned short port, DnsSdBase::Txt const& txt) {
    enter(makePublication(*this, client, name.toUTF8(), type, domain, port, txt));
}

void Engine::enter(std::unique_ptr<Operation> operation) {
    CancellationOff const cancellation_off;
    {
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_operations.push_back(std::move(operation));
    }
    wakeUp();
}

void Engine::cancel(Client& client) {
    CancellationOff const cancellation_off;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (auto const& operation : m_operations) {
        if (operation->m_client == &client) {
            operation->m_client = nullptr;
        }
    }
    wakeUp();
    // A callback may cancel its own operation.
    if (!(Thread::getCallerThreadId() == m_thread->getThreadId())) {
        m_call_ended.wait(lock, [&] { return m_called != &client; });
    }
}

void Engine::wakeUp() const noexcept {
    // Fails only if the counter is at its limit; the thread is awake then.
    static_cast<void>(eventfd_write(m_wake_fd.get(), 1));
}

// ---- the thread ----

void Engine::onWakeUp(AvahiWatch* /*unused*/, int fd, AvahiWatchEvent /*unused*/, void* /*unused*/) noexcept {
    eventfd_t count = 0;
    static_cast<void>(eventfd_read(fd, &count));
}

// Also called within `avahi_client_new`, when the client is not known yet.
void Engine::onState(AvahiClient* /*unused*/, AvahiClientState state, void* engine) noexcept {
    static_cast<Engine*>(engine)->m_state = state;
}

void Engine::warnNoMemory() noexcept {
    std::GlobalErrorHandler::doWarning(
        "avahi/src/Engine", __LINE__, __func__, "no memory for the result of an operation");
}

DnsSdBase::Client* Engine::beginCall(Operation const& operation) {
    std::lock_guard<std::mutex> const guard(m_mutex);
    m_called = operation.m_client;
    return m_called;
}

void Engine::endCall() {
    {
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_called = nullptr;
    }
    m_call_ended.notify_all();
}

void Engine::run() {
    Operations gone;
    bool goes_on = true;
    while (goes_on) {
        if (hasNoMemory([&] { goes_on = step(gone); })) {
            constexpr auto PAUSE_MS = std::chrono::milliseconds(PAUSE).count();
            static_cast<void>(avahi_simple_poll_iterate(m_poll.get(), PAUSE_MS));
        }
    }
    for (Operation* const operation : m_known) {
        operation->halt();
    }
    if (m_daemon != nullptr) {
        avahi_client_free(m_daemon);
    }
}

/// Does what is due, and waits for more. Returns false if the engine must end.
bool Engine::step(Operations& gone) {
    if (takeChanges(gone)) {
        return false;
    }
    for (auto const& operation : gone) {
        operation->halt();
    }
    gone.clear();
    // Fails if the connection has failed, which `onState` has told, or without memory.
    static_cast<void>(avahi_simple_poll_iterate(m_poll.get(), advance()));
    return true;
}

/// Updates `m_known`, and moves canceled operations to `gone`. Returns whether the engine must end.
bool Engine::takeChanges(Operations& gone) {
    std::lock_guard<std::mutex> const guard(m_mutex);
    m_known.clear();
    for (auto next = m_operations.begin(); next != m_operations.end();) {
        auto const operation = next++;
        if ((*operation)->m_client == nullptr) {
            gone.splice(gone.end(), m_operations, operation);
        } else {
            m_known.push_back(operation->get());
        }
    }
    return m_ends;
}

void Engine::connect(TimePoint now) {
    SigpipeKept const sigpipe_kept;
    int number = 0;
    m_state = AVAHI_CLIENT_CONNECTING;
    m_connect_at = now + PAUSE;
    m_daemon =
        avahi_client_new(avahi_simple_poll_get(m_poll.get()), AVAHI_CLIENT_NO_FAIL, &onState, this, &number);
}

void Engine::disconnect() {
    // Frees the objects of the operations, too.
    avahi_client_free(m_daemon);
    m_daemon = nullptr;
    for (Operation* const operation : m_known) {
        operation->lose();
    }
}

/// Does everything that can be done now. Returns the milliseconds until there is more to do, -1 for none.
int Engine::advance() {
    TimePoint const now = std::chrono::steady_clock::now();
    if (m_daemon != nullptr && m_state == AVAHI_CLIENT_FAILURE) {
        disconnect();
    }
    if (m_daemon == nullptr && now >= m_connect_at) {
        connect(now);
    }
    TimePoint due = m_daemon == nullptr ? m_connect_at : NEVER;
    for (Operation* const operation : m_known) {
        if (m_daemon != nullptr && m_state != AVAHI_CLIENT_FAILURE) {
            operation->advance(m_daemon, m_state, now);
            due = std::min(due, operation->getDue(now));
        }
    }
    if (m_daemon != nullptr && m_state == AVAHI_CLIENT_FAILURE) {
        return 0;
    }
    if (due == NEVER) {
        return -1;
    }
    auto const rest = std::chrono::ceil<std::chrono::milliseconds>(due - now).count();
    return static_cast<int>(std::clamp<long long>(rest, 0, INT_MAX));
}

std::string
Engine::findRaw(std::string const& name, std::string const& type, std::string const& domain) const {
    std::string result = name;
    for (Operation const* const operation : m_known) {
        std::optional<std::string> raw = operation->findRaw(name, type, domain);
        if (raw == name) {
            return name; // A service has this very name.
        }
        if (raw) {
            result = std::move(*raw);
        }
    }
    return result;
}

} // namespace vesk::avahi

/// Creates the engine; null without memory or a thread. The caller deletes it.
extern "C" VESK_API vesk::DnsSd::Engine* veskCreateDnsSdEngine() noexcept;

vesk::DnsSd::Engine* veskCreateDnsSdEngine() noexcept {
    try {
        return new vesk::avahi::Engine;
    } catch (std::exception const&) {
        return nullptr;
    }
}
