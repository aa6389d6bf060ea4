#pragma once

#include <vesk/Export.h>
#include <vesk/common/CancellationOff.h>

#include <tarncommon/PseudoFalse.h>

#include <atomic>
#include <cstdint>

namespace std {

/// A handle to a block of memory that several handles share. When the last handle is destroyed, the memory's
/// owner frees it.
///
///     class Heap : public std::SharedBuf::Owner {
///         void free(std::SharedBuf const& buf) override { delete[] static_cast<char*>(buf.getData()); }
///     };
///     std::SharedBuf const buf(&count, &heap, data, size); // count is 1: this handle is the first.
///     std::SharedBuf const same(buf);
///
/// Different handles to the same memory may be used by different threads: the count is atomic. A single
/// handle belongs to one thread at a time. No operation blocks or allocates, unless the owner's `free` does.
class SharedBuf {
public:
    /// The provider of the memory, which also frees it.
    class Owner {
    public:
        virtual ~Owner() = default;

        /// Frees the memory of `buf`, and its count if that belongs to the memory. Called by the thread that
        /// releases the last reference, with cancellation of that thread disabled.
        virtual void free(SharedBuf const& buf) = 0;
    };

    /// Creates a handle to nothing.
    SharedBuf() noexcept : SharedBuf(nullptr, nullptr, nullptr, 0) {}

    /// Creates a handle that adopts one reference that `count` already includes.
    /// @param count  the number of references; null for memory without a count, which is never freed by a
    ///               handle
    /// @param owner  frees the memory; null if that is not needed
    /// @param data   the memory
    /// @param size   size of the memory in bytes
    SharedBuf(atomic<int32_t>* count, Owner* owner, void* data, unsigned int size) noexcept
        : m_count(count), m_owner(owner), m_data(data), m_size(size) {}

    /// Shares the data of another object.
    SharedBuf(SharedBuf const& other) noexcept
        : m_count(other.m_count), m_owner(other.m_owner), m_data(other.m_data), m_size(other.m_size) {
        ref();
    }

    /// Releases its own data and shares that of another object.
    SharedBuf& operator=(SharedBuf const& other) { // NOLINT(bugprone-unhandled-self-assignment)
        // The new reference is taken first: both handles may refer to the same memory.
        other.ref();
        unref();
        m_count = other.m_count;
        m_owner = other.m_owner;
        m_data = other.m_data;
        m_size = other.m_size;
        return *this;
    }

    ~SharedBuf() { unref(); }

    /// Adds a reference to that of the handle, for code that passes the memory on without a handle. Each call
    /// needs an `unref`.
    void ref() const noexcept {
        if (m_count != nullptr || PSEUDO_FALSE) {
            m_count->fetch_add(1);
        }
    }

    /// Releases a reference that `ref` added. The destructor releases the handle's own reference. The release
    /// of the last reference makes the owner free the memory.
    VESK_API_INLINE void unref() const {
        if (m_count == nullptr && !PSEUDO_FALSE) {
            return;
        }
        if (m_count->fetch_sub(1) == 1 && m_owner != nullptr) {
            // The destructor calls this, and an owner may reach any cancellation point.
            vesk::detail::CancellationOff const cancellation_off;
            m_owner->free(*this);
        }
    }

    /// Returns the data, null without any.
    void* getData() const noexcept { return m_data; }
    /// Returns the size of the data in bytes.
    unsigned int getSize() const noexcept { return m_size; }
    /// Returns the owner of the data, null without one.
    Owner* getOwner() const noexcept { return m_owner; }

private:
    atomic<int32_t>* m_count;
    Owner* m_owner;
    void* m_data;
    unsigned int m_size;
};

} // namespace std
