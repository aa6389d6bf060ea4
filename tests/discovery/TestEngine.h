#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>
#include <vesk/DnsSd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace support {

/// Installs an engine during its lifetime.
class Installed : tarnbase::NonCopyable {
public:
    explicit Installed(vesk::DnsSd::Engine& engine) : m_before(vesk::DnsSd::setEngine(&engine)) {}
    ~Installed() { vesk::DnsSd::setEngine(m_before); }

private:
    vesk::DnsSd::Engine* m_before;
};

/// An engine with a thread: records its calls, and delivers what the test requests.
class TestEngine : public vesk::DnsSd::Engine {
public:
    using Client = vesk::DnsSdBase::Client;
    using String = std::unicode::String;
    using Txt = vesk::DnsSdBase::Txt;
    using Delivery = std::function<void(Client&)>;

    TestEngine() : m_thread([this] { run(); }) {}
    ~TestEngine() override {
        {
            std::lock_guard<std::mutex> const guard(m_mutex);
            m_ends = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }

    void browse(Client& client, std::string const& type, std::string const& domain) override {
        enter(client, "browse " + type + " " + domain);
    }
    void
    resolve(Client& client, String const& name, std::string const& type, std::string const& domain) override {
        enter(client, "resolve " + name.toUTF8() + " " + type + " " + domain);
    }
    void lookup(Client& client, std::string const& name) override { enter(client, "lookup " + name); }
    void publish(
        Client& client, String const& name, std::string const& type, std::string const& domain,
        unsigned short port, Txt const& txt) override {
        std::string call =
            "publish " + name.toUTF8() + " " + type + " " + domain + " " + std::to_string(port);
        for (auto const& [key, value] : txt) {
            call += " " + key + "=" + value;
        }
        enter(client, call);
    }

    /// Removes the client, and waits for the end of a delivery to it.
    void cancel(Client& client) override {
        if (on_cancel) {
            on_cancel(client);
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        m_calls.push_back("cancel");
        m_clients.erase(std::remove(m_clients.begin(), m_clients.end(), &client), m_clients.end());
        m_changed.wait(lock, [&] { return m_called != &client; });
    }

    /// Makes the thread call every later client once, or again and again.
    void deliver(Delivery delivery, bool again = false) {
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_delivery = std::move(delivery);
        m_again = again;
    }

    /// Returns the calls so far.
    std::vector<std::string> getCalls() const {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_calls;
    }

    /// Must be set before a client is made. `on_enter` runs at the end of each operation, `on_cancel` at the start
    /// of `cancel`.
    std::function<void(Client&)> on_enter;
    std::function<void(Client&)> on_cancel;

private:
    void enter(Client& client, std::string const& call) {
        {
            std::lock_guard<std::mutex> const guard(m_mutex);
            m_calls.push_back(call);
            m_clients.push_back(&client);
        }
        m_changed.notify_all();
        if (on_enter) {
            on_enter(client);
        }
    }

    /// Runs in the thread. Makes each delivery without the lock, so that a client can be canceled at the same time.
    void run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_ends) {
            if (m_clients.empty() || !m_delivery) {
                m_changed.wait(lock);
                continue;
            }
            Client& client = *m_clients.front();
            m_clients.pop_front();
            if (m_again) {
                m_clients.push_back(&client);
            }
            m_called = &client;
            lock.unlock();
            m_delivery(client);
            lock.lock();
            m_called = nullptr;
            m_changed.notify_all();
        }
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_calls;
    std::deque<Client*> m_clients; // Those to call.
    Delivery m_delivery;
    bool m_again = false;
    Client* m_called = nullptr; // The client that the thread calls.
    bool m_ends = false;
    std::thread m_thread;
};

} // namespace support
