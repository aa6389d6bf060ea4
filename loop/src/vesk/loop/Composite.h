#pragma once

#include "Core.h"
#include "Report.h"

#include <atomic>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace vesk::loop::detail {

/// Opens the loop and its watches to the other classes of this library.
struct Access {
    static std::shared_ptr<Core> const& getCore(Loop& loop) noexcept { return loop.m_core; }
    template <typename S>
    static S* getSource(Watch const& watch) noexcept {
        return static_cast<S*>(watch.m_source.get());
    }
    template <typename W>
    static W make(std::shared_ptr<Source> source) noexcept {
        return W(std::move(source));
    }
};

/// A callback that may be replaced while it runs: it is destroyed after the call then.
template <typename... Args>
class Slot {
public:
    void set(Callback<void(Args...)> callback) {
        m_is_replaced = true;
        m_callback = std::move(callback);
    }
    Callback<void(Args...)> take() noexcept { return std::move(m_callback); }
    explicit operator bool() const noexcept { return static_cast<bool>(m_callback); }
    /// Calls back, if there is a callback.
    void operator()(Args... args) {
        if (m_callback) {
            m_is_replaced = false;
            Restored const restored{*this, std::move(m_callback)};
            restored.callback(std::forward<Args>(args)...);
        }
    }

private:
    struct Restored {
        ~Restored() {
            if (!slot.m_is_replaced) {
                slot.m_callback = std::move(callback);
            }
        }
        Slot& slot;
        mutable Callback<void(Args...)> callback;
    };

    bool m_is_replaced = false;
    Callback<void(Args...)> m_callback;
};

/// A watch that is made of several sources, its parts. Each part calls a method, which keeps the object alive during
/// the call. The methods run in the loop's thread; only the destruction of the watch may come from another thread.
///
/// A callback of the user may destroy the watch. A method that goes on after one must look at `isSilent` first.
class Composite : public Source {
public:
    using Source::Source;
    ~Composite() override { silence(); }

    void detach() noexcept override {}
    void fire() override {}
    void cancel() noexcept override { silence(); }
    bool isActive() const noexcept override;

protected:
    /// Make a part that is not active yet.
    template <typename T>
    std::shared_ptr<ReadySource> addFd(int fd, bool writes, void (T::*method)()) {
        return addPart(std::make_shared<ReadySource>(
            shareCore(), getOptions(), fd, writes, Trigger::LEVEL, callTo(method)));
    }
    template <typename T>
    std::shared_ptr<TimerSource> addTimer(void (T::*method)()) {
        m_parts.reserve(m_parts.size() + 1);
        auto timer =
            std::make_shared<TimerSource>(shareCore(), getOptions(), Clock::duration::zero(), callTo(method));
        getCore().attach(*timer, Clock::time_point::max());
        getCore().finish(*timer);
        return addPart(std::move(timer));
    }

    /// Activates a part. Does nothing if it is active. Returns `errno`, 0 on success.
    int start(std::shared_ptr<ReadySource> const& part) const;
    void start(std::shared_ptr<TimerSource> const& part, Clock::time_point deadline) const noexcept {
        getCore().restart(*part, deadline);
    }
    void stop(std::shared_ptr<Source> const& part) const noexcept { getCore().finish(*part); }
    void stopAll() const noexcept;
    bool isSilent() const noexcept { return m_is_silent; }

private:
    template <typename Part>
    std::shared_ptr<Part> addPart(std::shared_ptr<Part> part) {
        m_parts.push_back(part);
        return part;
    }
    template <typename T>
    Callback<void()> callTo(void (T::*method)()) {
        return [weak = std::weak_ptr<T>(std::static_pointer_cast<T>(shared_from_this())), method] {
            if (auto const self = weak.lock()) {
                (self.get()->*method)();
            }
        };
    }
    void silence() noexcept;

    std::atomic<bool> m_is_silent{false};
    std::vector<std::shared_ptr<Source>> m_parts;
};

} // namespace vesk::loop::detail
