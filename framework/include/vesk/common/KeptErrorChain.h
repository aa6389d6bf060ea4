#pragma once

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <optional>

namespace vesk::detail {

/// Guard that preserves the calling thread's pending error chain until the end of a scope, regardless of what
/// is reported and acknowledged meanwhile. Intended for destructors, which may run while a failed operation
/// returns.
///
/// Uses no heap, and does nothing while no chain is pending.
class [[nodiscard]] KeptErrorChain : private tarnbase::NonCopyable {
public:
    KeptErrorChain() noexcept {
        if (std::ErrorStorage::isError(true)) {
            m_store.emplace(nullptr);
        }
    }

private:
    std::optional<std::ErrorStorage>
        m_store; ///< Takes the reports of the scope, in front of the thread's own store.
};

} // namespace vesk::detail
