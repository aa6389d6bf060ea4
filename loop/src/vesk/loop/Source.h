#pragma once

#include "Link.h"

#include <vesk/loop/Loop.h>

#include <vesk/common/UniqueFd.h>

#include <csignal>
#include <cstddef>
#include <memory>
#include <utility>

namespace vesk::loop::detail {

using vesk::detail::UniqueFd;

class Core;
class JobSource;

/// What follows when a source is due.
enum class Call : unsigned char { NONE, AGAIN, LAST };

/// What a watch owns: its callback, and its place in the structures of the core. The core's lock guards all fields
/// but the callback, which the loop's thread uses without a lock, and which the destructor destroys.
///
/// A source is attached from its creation until its watch is canceled or until it has fired for the last time. The
/// core refers only to attached sources.
class Source : public Link, public std::enable_shared_from_this<Source> {
public:
    Source(std::shared_ptr<Core> core, Priority priority, Place place) noexcept
        : m_core(std::move(core)), m_priority(priority), m_place(place) {}
    virtual ~Source() = default;

    /// Takes the source out of the structures of its kind.
    virtual void detach() noexcept = 0;
    /// The watch is gone.
    virtual void leave() noexcept {}
    /// Begins a call. Returns whether there is one, and whether it is the last one.
    virtual Call prepare() noexcept { return Call::AGAIN; }
    /// Calls back. Runs without the lock.
    virtual void fire() = 0;

    Core& getCore() const noexcept { return *m_core; }
    Priority getPriority() const noexcept { return m_priority; }
    Place getPlace() const noexcept { return m_place; }

    bool is_attached = false;

private:
    std::shared_ptr<Core> const m_core;
    Priority const m_priority;
    Place const m_place;
};

/// One direction of a descriptor.
class FdSource : public Source {
public:
    FdSource(
        std::shared_ptr<Core> core, Priority priority, Place place, int descriptor, bool writes, Trigger how)
        : Source(std::move(core), priority, place), fd(descriptor), is_writer(writes), trigger(how) {}

    void detach() noexcept override;

    int const fd;
    bool const is_writer;
    Trigger const trigger;
};

/// A descriptor of the caller.
class ReadySource final : public FdSource {
public:
    ReadySource(
        std::shared_ptr<Core> core, Priority priority, Place place, int descriptor, bool writes, Trigger how,
        Callback<void()> callback)
        : FdSource(std::move(core), priority, place, descriptor, writes, how),
          m_callback(std::move(callback)) {}

    void fire() override { m_callback(); }

private:
    Callback<void()> m_callback;
};

/// A moment in time.
class TimerSource final : public Source {
public:
    static constexpr size_t NOWHERE = static_cast<size_t>(-1);

    TimerSource(
        std::shared_ptr<Core> core, Priority priority, Place place, Clock::duration interval,
        Callback<void()> callback)
        : Source(std::move(core), priority, place), period(interval), m_callback(std::move(callback)) {}

    void detach() noexcept override;
    void leave() noexcept override;
    Call prepare() noexcept override;
    void fire() override { m_callback(); }

    Clock::duration const period; ///< Zero for a timer that expires once.
    Clock::time_point deadline;
    unsigned long long order = 0; ///< Timers of one deadline expire in the order of their starts.
    size_t index = NOWHERE;       ///< In the heap of the core.

private:
    Callback<void()> m_callback;
};

/// A signal.
class SignalSource final : public Source {
public:
    SignalSource(
        std::shared_ptr<Core> core, Priority priority, Place place, int number, Callback<void()> callback)
        : Source(std::move(core), priority, place), signal(number), m_callback(std::move(callback)) {}

    void detach() noexcept override;
    void fire() override { m_callback(); }

    int const signal;

private:
    Callback<void()> m_callback;
};

/// Returns a descriptor that is readable when a child has ended, or one that is not open, with `errno` set.
UniqueFd openChild(pid_t child) noexcept;

/// A child, by a descriptor of its own.
class ChildSource final : public FdSource {
public:
    ChildSource(
        std::shared_ptr<Core> core, Priority priority, Place place, pid_t child, UniqueFd descriptor,
        Callback<void(Exit)> callback)
        : FdSource(std::move(core), priority, place, descriptor.get(), false, Trigger::LEVEL),
          m_child(child),
          m_descriptor(std::move(descriptor)),
          m_callback(std::move(callback)) {}

    Call prepare() noexcept override;
    void fire() override;

private:
    pid_t const m_child;
    UniqueFd m_descriptor;
    Exit m_exit;
    Callback<void(Exit)> m_callback;
};

/// A round without anything else.
class IdleSource final : public Source {
public:
    IdleSource(std::shared_ptr<Core> core, Place place, Callback<void()> callback)
        : Source(std::move(core), Priority::LOW, place), m_callback(std::move(callback)) {}

    void detach() noexcept override;
    void fire() override { m_callback(); }

private:
    Callback<void()> m_callback;
};

} // namespace vesk::loop::detail
