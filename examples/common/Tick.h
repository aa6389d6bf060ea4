#pragma once

#include <vesk/Message.h>
#include <vesk/Timer.h>

#include <atomic>

namespace examples {

/// A periodic timer without drift that lets the thread of a dispatcher do the work. The callbacks of all timers share
/// one thread, so a timer that works itself delays all others.
///
/// Work that is late is not done twice. Must not be destroyed while the dispatcher may still do the work.
class Tick : public vesk::Timer {
public:
    /// @param queue  of the dispatcher; outlives this object
    Tick(vesk::Message::Sink& queue, void (*work)(void*), void* argument)
        : Timer(ring, false), m_queue(queue), m_work(work), m_argument(argument) {}
    // Before the members go: `ring` must not find them half destroyed.
    ~Tick() override { static_cast<void>(stop()); }

private:
    static void ring(vesk::Timer* timer) {
        auto* const tick = static_cast<Tick*>(timer);
        if (!tick->m_is_waiting.exchange(true)) {
            tick->m_queue.push(new vesk::Message::Callback(call, tick));
        }
    }

    static void call(void* argument) {
        auto* const tick = static_cast<Tick*>(argument);
        tick->m_is_waiting = false;
        tick->m_work(tick->m_argument);
    }

    vesk::Message::Sink& m_queue;
    void (*m_work)(void*);
    void* m_argument;
    std::atomic<bool> m_is_waiting{false};
};

} // namespace examples
