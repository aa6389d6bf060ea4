#pragma once

#include <vesk/loop/Export.h>

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace vesk::loop {

template <typename Signature>
class Callback;

/// Owns a callable of any type, also one that can only be moved. A callable of at most four pointers is kept
/// without the heap. An empty callback must not be called.
///
///     Callback<void(int)> callback = [owner = std::move(owner)](int signal) { owner->handle(signal); };
template <typename Result, typename... Args>
class Callback<Result(Args...)> {
public:
    Callback() noexcept = default;

    template <
        typename F,
        typename = std::enable_if_t<
            !std::is_same_v<std::decay_t<F>, Callback> &&
            std::is_invocable_r_v<Result, std::decay_t<F>&, Args...>>>
    Callback(F&& callable) {
        using Callable = std::decay_t<F>;
        if constexpr (fits<Callable>()) {
            new (m_storage) Callable(std::forward<F>(callable));
            m_operations = &LOCAL<Callable>;
        } else {
            *reinterpret_cast<Callable**>(m_storage) = new Callable(std::forward<F>(callable));
            m_operations = &ON_HEAP<Callable>;
        }
    }

    Callback(Callback&& other) noexcept : m_operations(std::exchange(other.m_operations, nullptr)) {
        if (m_operations != nullptr) {
            m_operations->move(m_storage, other.m_storage);
        }
    }
    Callback& operator=(Callback&& other) noexcept {
        if (this != &other) {
            this->~Callback();
            new (this) Callback(std::move(other));
        }
        return *this;
    }
    ~Callback() {
        if (m_operations != nullptr) {
            m_operations->destroy(m_storage);
        }
    }

    explicit operator bool() const noexcept { return m_operations != nullptr; }

    Result operator()(Args... args) { return m_operations->call(m_storage, std::forward<Args>(args)...); }

private:
    struct Operations {
        Result (*call)(void* storage, Args&&... args);
        void (*move)(void* to, void* from) noexcept;
        void (*destroy)(void* storage) noexcept;
    };

    template <typename Callable>
    static constexpr bool fits() {
        return sizeof(Callable) <= sizeof m_storage && alignof(Callable) <= alignof(std::max_align_t) &&
            std::is_nothrow_move_constructible_v<Callable>;
    }

    template <typename Callable>
    static constexpr Operations LOCAL = {
        [](void* storage, Args&&... args) -> Result {
            return (*static_cast<Callable*>(storage))(std::forward<Args>(args)...);
        },
        [](void* to, void* from) noexcept {
            new (to) Callable(std::move(*static_cast<Callable*>(from)));
            static_cast<Callable*>(from)->~Callable();
        },
        [](void* storage) noexcept { static_cast<Callable*>(storage)->~Callable(); }};

    template <typename Callable>
    static constexpr Operations ON_HEAP = {
        [](void* storage, Args&&... args) -> Result {
            return (**static_cast<Callable**>(storage))(std::forward<Args>(args)...);
        },
        [](void* to, void* from) noexcept { *static_cast<Callable**>(to) = *static_cast<Callable**>(from); },
        [](void* storage) noexcept { delete *static_cast<Callable**>(storage); }};

    alignas(std::max_align_t) unsigned char m_storage[4 * sizeof(void*)];
    Operations const* m_operations = nullptr;
};

} // namespace vesk::loop
