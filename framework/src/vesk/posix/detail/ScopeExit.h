#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <utility>

namespace vesk::detail {

/// Guard that calls a function at the end of a scope. The function must not throw.
///
///     ScopeExit const destroy([&] { pthread_attr_destroy(&attributes); });
template <typename Function>
class [[nodiscard]] ScopeExit : private tarnbase::NonCopyable {
public:
    explicit ScopeExit(Function function) noexcept : m_function(std::move(function)) {}
    ~ScopeExit() { m_function(); }

private:
    Function m_function;
};

} // namespace vesk::detail
