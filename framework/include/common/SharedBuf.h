#pragma once

#include <vesk/Export.h>
#include <vesk/common/CancellationOff.h>

#include <tarncommon/PseudoFalse.h>

#include <atomic>
#include <cstdint>

namespace std {

/// A handle on a piece of memory that several handles share; the last one to go has the memory's owner free it.
///
///     class Heap : public std::SharedBuf::Owner {
///         void free(std::SharedBuf const& buf) override { delete[] static_cast<char*>(buf.getData()); }
///     };
///     std::SharedBuf const buf(&count, &heap, data, size); // count is 1: this handle is the first.
///     std::SharedBuf const same(buf);
///
/// Different handles on the same memory may be used by different threads: the count is atomic. One handle belongs to one
/// thread at a time. Nothing blocks or allocates.
class SharedBuf {
public:
    /// Who gave the memory, and takes it back.
    class Owner {
    public:
        virtual ~Owner() = default;

        /// Frees the memory of `buf`, its count included if that belongs to it. Called by the thread that lets go of the
        /// last reference, with the cancellation of that thread disabled.
        virtual void free(SharedBuf const& buf) = 0;
    };

    /// A handle on nothing.
    SharedBuf() noexcept : SharedBuf(nullptr, nullptr, nullptr, 0) {}

    /// A handle that takes over one reference which `count` already has.
    /// @param count  the number of references; null for memory that nobody counts, which is never freed from here
    /// @param owner  frees the memory; null if nobody needs to
    /// @param data   the memory
    /// @param size   its bytes
    SharedBuf(atomic<int32_t>* count, Owner* owner, void* data, unsigned int size) noexcept
        : m_count(count), m_owner(owner), m_data(data), m_size(size) {}

    SharedBuf(SharedBuf const& other) noexcept
        : m_count(other.m_count), m_owner(other.m_owner), m_data(other.m_data), m_size(other.m_size) {
        ref();
    }

    SharedBuf& operator=(SharedBuf const& other) { // NOLINT(bugprone-unhandled-self-assignment)
        // The new reference comes first: both may be handles on the same memory.
        other.ref();
        unref();
        m_count = other.m_count;
        m_owner = other.m_owner;
        m_data = other.m_data;
        m_size = other.m_size;
        return *this;
    }

    ~SharedBuf() { unref(); }

    /// Adds a reference beside the handle's own, for memory that goes through hands which keep no handle. Each needs an
    /// `unref`.
    void ref() const noexcept {
        if (m_count != nullptr || PSEUDO_FALSE) {
            m_count->fetch_add(1);
        }
    }

    /// Lets go of a reference that `ref` added; the handle's own goes with its destructor. The last one to go has the
    /// owner free the memory.
    VESK_API_INLINE void unref() const {
        if (m_count == nullptr && !PSEUDO_FALSE) {
            return;
        }
        if (m_count->fetch_sub(1) == 1 && m_owner != nullptr) {
            // The destructor comes here, and an owner may reach any cancellation point.
            vesk::detail::CancellationOff const cancellation_off;
            m_owner->free(*this);
        }
    }

    void* getData() const noexcept { return m_data; }
    unsigned int getSize() const noexcept { return m_size; }
    Owner* getOwner() const noexcept { return m_owner; }

private:
    atomic<int32_t>* m_count;
    Owner* m_owner;
    void* m_data;
    unsigned int m_size;
};

} // namespace std
