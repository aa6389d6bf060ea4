#pragma once

#include <vesk/loop/Export.h>

#include <cstddef>
#include <cstring>
#include <memory>
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

    /// Owns a copy of a callable, or the callable itself if it can be moved.
    template <
        typename F,
        typename = std::enable_if_t<
            !std::is_same_v<std::decay_t<F>, Callback> &&
            std::is_invocable_r_v<Result, std::decay_t<F>&, Args...>>>
    Callback(F&& callable) {
        using Callable = std::decay_t<F>;
        if constexpr (FITS<Callable>) {
            put<Callable>(std::forward<F>(callable));
        } else {
            auto remote = [owner = std::make_unique<Callable>(std::forward<F>(callable))](
                              Args... args) -> Result { return (*owner)(std::forward<Args>(args)...); };
            put<decltype(remote)>(std::move(remote));
        }
    }

    /// Takes the callable of another callback, which is empty afterwards.
    Callback(Callback&& other) noexcept : m_operations(std::exchange(other.m_operations, nullptr)) {
        if (m_operations != nullptr && m_operations->move != nullptr) {
            m_operations->move(m_storage, other.m_storage);
        } else {
            std::memcpy(m_storage, other.m_storage, sizeof m_storage);
        }
    }
    /// Destroys its callable, and takes that of another callback.
    Callback& operator=(Callback&& other) noexcept {
        Callback taken(std::move(other)); // Which may be this one.
        this->~Callback();
        return *new (this) Callback(std::move(taken));
    }
    ~Callback() {
        if (m_operations != nullptr && m_operations->destroy != nullptr) {
            m_operations->destroy(m_storage);
        }
    }

    /// Returns whether there is a callable.
    explicit operator bool() const noexcept { return m_operations != nullptr; }
    /// Calls the callable.
    Result operator()(Args... args) { return m_operations->call(m_storage, std::forward<Args>(args)...); }

private:
    /// What is done with the bytes of a callable. Those that need no function to be moved or destroyed have none.
    struct Operations {
        Result (*call)(void* storage, Args&&... args);
        void (*move)(void* to, void* from) noexcept;
        void (*destroy)(void* storage) noexcept;
    };
    template <typename Callable>
    static constexpr bool FITS = sizeof(Callable) <= 4 * sizeof(void*) &&
        alignof(Callable) <= alignof(std::max_align_t) && std::is_nothrow_move_constructible_v<Callable>;
    template <typename Callable>
    static constexpr Operations OPERATIONS = {
        [](void* storage, Args&&... args) -> Result {
            return (*static_cast<Callable*>(storage))(std::forward<Args>(args)...);
        },
        std::is_trivially_copyable_v<Callable> ? nullptr : +[](void* to, void* from) noexcept {
            new (to) Callable(std::move(*static_cast<Callable*>(from)));
            static_cast<Callable*>(from)->~Callable();
        },
        std::is_trivially_copyable_v<Callable> ? nullptr
                           : +[](void* storage) noexcept { static_cast<Callable*>(storage)->~Callable(); }};
    template <typename Callable, typename From>
    void put(From&& callable) {
        new (m_storage) Callable(std::forward<From>(callable));
        m_operations = &OPERATIONS<Callable>;
    }

    alignas(std::max_align_t) unsigned char m_storage[4 * sizeof(void*)] = {};
    Operations const* m_operations = nullptr;
};

} // namespace vesk::loop
