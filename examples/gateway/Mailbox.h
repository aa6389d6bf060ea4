#pragma once

#include "Post.h"

#include <vesk/Mutex.h>
#include <vesk/Poller.h>

#include <utility>
#include <vector>

namespace gateway {

/// Calls from other threads, carried out by the thread of a poller between two cycles.
class Mailbox {
public:
    explicit Mailbox(vesk::Poller& poller) : m_poller(poller) {}

    void post(std::function<void()> call) {
        bool is_first = false;
        {
            vesk::MutexLock const lock(m_mutex);
            is_first = m_calls.empty();
            m_calls.push_back(std::move(call));
        }
        // Once for all that wait: each `stop` writes into a pipe, which may be full.
        if (is_first) {
            m_poller.stop();
        }
    }

    /// Carries out all calls. For the polling thread, when `poll` has returned true.
    void carryOut() {
        std::vector<std::function<void()>> calls;
        {
            vesk::MutexLock const lock(m_mutex);
            calls.swap(m_calls);
        }
        for (auto const& call : calls) {
            call();
        }
    }

private:
    vesk::Poller& m_poller;
    vesk::Mutex m_mutex;
    std::vector<std::function<void()>> m_calls;
};

} // namespace gateway
