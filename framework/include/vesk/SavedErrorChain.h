#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>

namespace vesk {

/// Keeps the calling thread's error chain across a clean-up that may report for itself, such as the `close` after a
/// failed `bind`:
///
///     vesk::SavedErrorChain saved;
///     if (close()) {
///         std::ErrorStorage::ack();
///     }
///     saved.restore();
///
/// Lives on the stack, allocates nothing, cannot fail.
class VESK_API SavedErrorChain : private tarnbase::NonCopyable {
public:
    /// How many reports are kept.
    static constexpr unsigned int CAPACITY = 8;

    /// Copies the pending chain, of a longer one the 8 reports of the highest level, and acknowledges it.
    SavedErrorChain() noexcept;

    /// Reports the copies again, in their old order and with their own places: the lowest opens a new chain. Does
    /// nothing if no chain was pending. What the clean-up left pending is to be acknowledged before.
    void restore() const noexcept;

private:
    std::ErrorObject m_reports[CAPACITY];
    uint16_t m_count = 0;
};

} // namespace vesk
