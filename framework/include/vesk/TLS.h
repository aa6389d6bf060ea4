#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/TlsImpl.h>

namespace vesk {

/// Thread-local storage.
class TLS {
public:
    TLS() = delete;

    /// A slot of the process in which each thread stores one pointer, null until the thread sets it:
    ///
    ///     vesk::TLS::Key key;
    ///     key.set(&session);
    ///     auto* const mine = static_cast<Session*>(key.get());
    ///
    /// Callable from any thread; takes no lock. The slot does not own the pointers. A process has 1,024
    /// slots. A failure to create a slot or to store a value ends the process (see `threadsafe::TlsImpl`).
    class Key : private tarnbase::NonCopyable {
    public:
        Key() = default;

        /// Creates a static slot, which is constant-initialized. The first `set` allocates the system's slot.
        constexpr explicit Key(threadsafe::ConstantInit) noexcept : m_impl(threadsafe::CONSTANT_INIT) {}

        /// Stores the calling thread's value.
        void set(void* value) { m_impl.set(value); }
        /// Returns the calling thread's value.
        void* get() const noexcept { return m_impl.get(); }

    private:
        threadsafe::TlsImpl m_impl;
    };
};

} // namespace vesk
