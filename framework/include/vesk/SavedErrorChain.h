#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>

namespace vesk {

/// A saved copy of the calling thread's error chain, for a clean-up that may report as well, such as the
/// `close` after a failed `bind`:
///
///     vesk::SavedErrorChain saved;
///     if (close()) {
///         std::ErrorStorage::ack();
///     }
///     saved.restore();
///
/// Intended for the stack. Allocates nothing and cannot fail.
class VESK_API SavedErrorChain : private tarnbase::NonCopyable {
public:
    /// The maximum number of reports that are kept.
    static constexpr unsigned int CAPACITY = 8;

    /// Copies the pending chain and acknowledges it. Of a longer chain, it copies the 8 reports of the
    /// highest level.
    SavedErrorChain() noexcept;

    /// Reports the copies again, in their original order and with their original places: the lowest opens a
    /// new chain. Does nothing if no chain was pending. The caller must acknowledge the reports of the
    /// clean-up before.
    void restore() const noexcept;

private:
    std::ErrorObject m_reports[CAPACITY];
    uint16_t m_count = 0;
};

} // namespace vesk
