#pragma once

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <optional>

namespace vesk::detail {

/// Keeps the calling thread's pending error chain as it is to the end of a scope, whatever is reported and acknowledged
/// in between: for a destructor, which may run on the way out of an operation that has failed.
///
/// Takes no memory from the heap and does nothing while no chain is pending.
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
