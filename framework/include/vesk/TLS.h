#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/TlsImpl.h>

namespace vesk {

/// Storage of which each thread has its own.
class TLS {
public:
    TLS() = delete;

    /// A slot of the process in which each thread keeps one pointer, null until it sets one:
    ///
    ///     vesk::TLS::Key key;
    ///     key.set(&session);
    ///     auto* const mine = static_cast<Session*>(key.get());
    ///
    /// Callable from any thread; takes no lock. The pointers are not owned. Being unable to make a slot, of which a
    /// process has 1,024, or to store a value ends the process (see `threadsafe::TlsImpl`).
    class Key : private tarnbase::NonCopyable {
    public:
        Key() = default;

        /// Makes a static slot, which exists before any initialiser runs. The first `set` takes the system's slot.
        constexpr explicit Key(threadsafe::ConstantInit) noexcept : m_impl(threadsafe::CONSTANT_INIT) {}

        /// Stores the calling thread's value.
        void set(void* value) { m_impl.set(value); }
        /// The calling thread's value.
        void* get() const noexcept { return m_impl.get(); }

    private:
        threadsafe::TlsImpl m_impl;
    };
};

} // namespace vesk
