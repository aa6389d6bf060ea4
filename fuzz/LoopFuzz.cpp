// Fuzzes Loop with sequences of operations, and compares the callbacks of each round with a model. The input is the
// operations, one or two bytes each.

#include "Check.h"

#include <vesk/loop/Loop.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

using vesk::loop::Loop;
using vesk::loop::Priority;
using vesk::loop::Result;
using vesk::loop::Timer;
using vesk::loop::Watch;

constexpr std::size_t SLOTS = 6;
constexpr auto FAR = std::chrono::hours(1);

/// The operations. A slot has a pipe and at most one watch, of the pipe or of a time.
enum class Op : std::uint8_t {
    READABLE,
    TIMER,
    CANCEL,
    RESTART,
    STOP,
    WRITE,
    READ,
    POST,
    IDLE,
    ROUND,
    COUNT
};

template <typename T>
T need(Result<T> result) {
    fuzz::check(static_cast<bool>(result), "the operation succeeds");
    return std::move(*result);
}

class Model {
public:
    Model(std::uint8_t const* data, std::size_t size) : m_data(data), m_size(size) {
        for (Slot& slot : m_slots) {
            fuzz::check(pipe2(slot.pipe.data(), O_NONBLOCK | O_CLOEXEC) == 0, "there is a pipe");
        }
    }
    ~Model() {
        for (Slot& slot : m_slots) {
            cancel(slot);
            close(slot.pipe[0]);
            close(slot.pipe[1]);
        }
    }
    Model(Model const&) = delete;
    Model& operator=(Model const&) = delete;

    void run() {
        while (m_next < m_size) {
            apply(take(), false);
        }
        round();
    }

private:
    enum class Kind : std::uint8_t { NONE, READABLE, TIMER, IDLE };
    struct Slot {
        std::array<int, 2> pipe{};
        Watch watch;
        Timer timer;
        Kind kind = Kind::NONE;
        std::size_t priority = 0;
        std::size_t bytes = 0;
        bool is_set = false;  ///< Whether the timer is going to expire.
        bool is_near = false; ///< Whether it expires in the next round.
        bool is_due = false;  ///< In this round.
    };

    std::uint8_t take() { return m_next < m_size ? m_data[m_next++] : 0; }

    /// Applies one operation, in a callback or between rounds.
    void apply(std::uint8_t code, bool in_callback) {
        Slot& slot = m_slots[code / static_cast<std::size_t>(Op::COUNT) % SLOTS];
        switch (static_cast<Op>(code % static_cast<std::uint8_t>(Op::COUNT))) {
        case Op::READABLE:
            return watch(slot, Kind::READABLE);
        case Op::TIMER:
            return watch(slot, Kind::TIMER);
        case Op::IDLE:
            return watch(slot, Kind::IDLE);
        case Op::CANCEL:
            return cancel(slot);
        case Op::RESTART:
            return restart(slot);
        case Op::STOP:
            return stop(slot);
        case Op::WRITE:
            return write(slot);
        case Op::READ:
            return read(slot);
        case Op::POST:
            return post();
        default:
            if (!in_callback) {
                round();
            }
        }
    }

    void watch(Slot& slot, Kind kind) {
        cancel(slot);
        std::uint8_t const code = take();
        slot.priority = kind == Kind::IDLE ? 2 : code % 3;
        auto const priority = static_cast<Priority>(slot.priority);
        auto const call = [this, &slot] { called(slot); };
        if (kind == Kind::READABLE) {
            slot.watch = need(m_loop.onReadable(slot.pipe[0], call, priority));
        } else if (kind == Kind::IDLE) {
            slot.watch = need(m_loop.onIdle(call));
        } else {
            slot.is_near = code >= 128;
            slot.is_set = true;
            slot.timer = need(m_loop.after(slot.is_near ? std::chrono::hours(0) : FAR, call, priority));
        }
        slot.kind = kind;
    }
    static void cancel(Slot& slot) {
        slot.watch = Watch();
        slot.timer = Timer();
        slot.kind = Kind::NONE;
        slot.is_set = slot.is_due = slot.is_near = false;
    }
    void restart(Slot& slot) {
        std::uint8_t const code = take();
        if (slot.kind == Kind::TIMER) {
            slot.is_near = code >= 128;
            slot.is_set = true;
            slot.is_due = false;
            slot.timer.restart(slot.is_near ? std::chrono::hours(0) : FAR);
        }
    }
    static void stop(Slot& slot) {
        if (slot.kind == Kind::TIMER) {
            slot.is_set = slot.is_near = slot.is_due = false;
            slot.timer.stop();
        }
    }
    static void write(Slot& slot) { slot.bytes += ::write(slot.pipe[1], "x", 1) == 1 ? 1 : 0; }
    static void read(Slot& slot) {
        char byte = 0;
        slot.bytes -= ::read(slot.pipe[0], &byte, 1) == 1 ? 1 : 0;
    }
    void post() {
        std::size_t const priority = take() % 3;
        std::size_t const number = m_posted[priority]++;
        Result<> const result = m_loop.post(
            [this, priority, number] {
                fuzz::check(number == m_called[priority]++, "posts are called in their order");
                fuzz::check(number < m_batch[priority], "a post waits for the next round");
                checkOrder(priority, true);
                apply(take(), true);
            },
            static_cast<Priority>(priority));
        fuzz::check(static_cast<bool>(result), "a post succeeds");
    }

    void called(Slot& slot) {
        fuzz::check(slot.is_due, "a callback is due, and called once");
        slot.is_due = false;
        checkOrder(slot.priority, false);
        if (slot.kind == Kind::TIMER) {
            slot.is_set = slot.is_near = false;
            fuzz::check(!slot.timer.isActive(), "a timer that expires is over");
        }
        apply(take(), true);
    }
    /// Checks that nothing that comes before a callback is left.
    void checkOrder(std::size_t priority, bool is_post) const {
        for (std::size_t i = 0; i < priority; ++i) {
            fuzz::check(m_called[i] == m_batch[i], "a post of a higher priority comes first");
        }
        fuzz::check(is_post || m_called[priority] == m_batch[priority], "posts come before watches");
        for (Slot const& slot : m_slots) {
            fuzz::check(!slot.is_due || slot.priority >= priority, "a higher priority comes first");
        }
    }

    void round() {
        bool is_busy = m_posted != m_called;
        for (Slot& slot : m_slots) {
            slot.is_due = (slot.kind == Kind::READABLE && slot.bytes > 0) || (slot.is_set && slot.is_near);
            is_busy = is_busy || slot.is_due;
        }
        for (Slot& slot : m_slots) {
            slot.is_due = slot.is_due || (!is_busy && slot.kind == Kind::IDLE);
        }
        m_batch = m_posted;
        need(m_loop.runOnce());
        fuzz::check(m_called == m_batch, "each post is called");
        for (Slot& slot : m_slots) {
            fuzz::check(!slot.is_due, "what is due is called");
            bool const is_active = slot.kind == Kind::TIMER ? slot.is_set : slot.kind != Kind::NONE;
            fuzz::check(
                is_active == (slot.kind == Kind::TIMER ? slot.timer : slot.watch).isActive(),
                "a watch knows whether it is active");
        }
    }

    std::uint8_t const* m_data;
    std::size_t m_size;
    std::size_t m_next = 0;
    Loop m_loop;
    std::array<Slot, SLOTS> m_slots;
    std::array<std::size_t, 3> m_posted{};
    std::array<std::size_t, 3> m_called{};
    std::array<std::size_t, 3> m_batch{};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Model(data, size).run();
    return 0;
}
