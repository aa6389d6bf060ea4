#pragma once

#include <vesk/Message.h>
#include <vesk/Timer.h>

#include <functional>
#include <utility>

namespace examples {

/// A message that calls any function in the thread of a dispatcher.
///
///     queue.push(new Call([weak = weak_from_this()] { ... }));
///
/// It may be carried out long after it was pushed: what the function refers to must exist by then, or be found gone.
class Call : public vesk::Message {
public:
    explicit Call(std::function<void()> function) : m_function(std::move(function)) {}
    void invoke() override { m_function(); }

private:
    std::function<void()> m_function;
};

/// A timer that rings once, as a call in the thread of a dispatcher.
class Delay : public vesk::Timer {
public:
    /// @param queue  of the dispatcher; outlives this object
    explicit Delay(vesk::Message::Sink& queue) : Timer(ring, false), m_queue(queue) {}
    ~Delay() override { static_cast<void>(stop()); }

    /// Starts again. Returns true on failure.
    [[nodiscard]] bool begin(unsigned int ms, std::function<void()> function) {
        static_cast<void>(stop()); // Waits for `ring`, which uses the function.
        m_function = std::move(function);
        return start(ms, false);
    }

private:
    static void ring(vesk::Timer* timer) {
        auto const& delay = *static_cast<Delay*>(timer);
        delay.m_queue.push(new Call(delay.m_function));
    }

    vesk::Message::Sink& m_queue;
    std::function<void()> m_function;
};

} // namespace examples
