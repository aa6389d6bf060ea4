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
    Source(std::shared_ptr<Core> core, Options options) noexcept
        : m_core(std::move(core)), m_options(options) {}
    virtual ~Source() = default;

    /// Takes the source out of the structures of its kind.
    virtual void detach() noexcept = 0;
    /// The watch is gone.
    virtual void leave() noexcept {}
    /// Begins a call. Returns whether there is one, and whether it is the last one.
    virtual Call prepare() noexcept { return Call::AGAIN; }
    /// Calls back. Runs without the lock.
    virtual void fire() = 0;
    /// Ends the watch. When it returns, the callback does not run in another thread.
    virtual void cancel() noexcept;
    virtual bool isActive() const noexcept;

    Core& getCore() const noexcept { return *m_core; }
    std::shared_ptr<Core> const& shareCore() const noexcept { return m_core; }
    Options const& getOptions() const noexcept { return m_options; }

    bool is_attached = false;
    bool is_canceled = false; ///< A source that was canceled is never attached again.

private:
    std::shared_ptr<Core> const m_core;
    Options const m_options;
};

/// One direction of a descriptor.
class FdSource : public Source {
public:
    FdSource(std::shared_ptr<Core> core, Options options, int descriptor, bool writes, Trigger how)
        : Source(std::move(core), options), fd(descriptor), is_writer(writes), trigger(how) {}

    void detach() noexcept override;

    int const fd;
    bool const is_writer;
    Trigger const trigger;
};

/// A descriptor of the caller.
class ReadySource final : public FdSource {
public:
    ReadySource(
        std::shared_ptr<Core> core, Options options, int descriptor, bool writes, Trigger how,
        Callback<void()> callback)
        : FdSource(std::move(core), options, descriptor, writes, how), m_callback(std::move(callback)) {}

    void fire() override { m_callback(); }

private:
    Callback<void()> m_callback;
};

/// A moment in time.
class TimerSource final : public Source {
public:
    static constexpr size_t NOWHERE = static_cast<size_t>(-1);

    TimerSource(
        std::shared_ptr<Core> core, Options options, Clock::duration interval, Callback<void()> callback)
        : Source(std::move(core), options), period(interval), m_callback(std::move(callback)) {}

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
    SignalSource(std::shared_ptr<Core> core, Options options, int number, Callback<void()> callback)
        : Source(std::move(core), options), signal(number), m_callback(std::move(callback)) {}

    void detach() noexcept override;
    void fire() override { m_callback(); }

    int const signal;

private:
    Callback<void()> m_callback;
};

/// Returns a descriptor that is readable when a child has ended, or one that is not open, with `errno` set.
UniqueFd openChild(pid_t child) noexcept;

/// A child, by a descriptor of its own. The collector of `ProcessTNG` leaves it alone until it is reaped.
class ChildSource final : public FdSource {
public:
    ChildSource(
        std::shared_ptr<Core> core, Options options, pid_t child, UniqueFd descriptor,
        Callback<void(Exit)> callback);
    ~ChildSource() override;
    Call prepare() noexcept override;
    void fire() override;

private:
    void release() noexcept;

    bool m_is_kept = true;
    pid_t const m_child;
    UniqueFd m_descriptor;
    Exit m_exit;
    Callback<void(Exit)> m_callback;
};

/// The real-time clock, by a descriptor of its own.
class ClockSource final : public FdSource {
public:
    ClockSource(std::shared_ptr<Core> core, Options options, UniqueFd descriptor, Callback<void()> callback)
        : FdSource(std::move(core), options, descriptor.get(), false, Trigger::LEVEL),
          m_descriptor(std::move(descriptor)),
          m_callback(std::move(callback)) {}

    Call prepare() noexcept override;
    void fire() override { m_callback(); }

private:
    UniqueFd m_descriptor;
    Callback<void()> m_callback;
};

/// A round without anything else.
class IdleSource final : public Source {
public:
    IdleSource(std::shared_ptr<Core> core, Options options, Callback<void()> callback)
        : Source(std::move(core), options), m_callback(std::move(callback)) {}

    void detach() noexcept override;
    void fire() override { m_callback(); }

private:
    Callback<void()> m_callback;
};

} // namespace vesk::loop::detail
