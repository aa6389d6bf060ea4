#pragma once

#include <vesk/loop/Error.h>

#include <system_error>
#include <utility>
#include <variant>

namespace vesk::loop {

/// The outcome of an operation: its value, or why there is none. True when it *succeeded*.
///
///     auto watch = loop.onReadable(fd, [&] { ... });
///     if (!watch) {
///         std::cerr << watch.error() << '\n';
///     }
///
/// Nothing stays pending in the thread's store behind it.
template <typename T = void>
class [[nodiscard]] Result {
public:
    /// The operation has succeeded with this value.
    Result(T value) : m_content(std::in_place_index<0>, std::move(value)) {}
    /// The operation has failed.
    Result(Error error) : m_content(std::in_place_index<1>, std::move(error)) {}

    /// Returns whether the operation has succeeded.
    explicit operator bool() const noexcept { return m_content.index() == 0; }

    /// Returns the value. The operation must have succeeded.
    T& operator*() & noexcept { return *std::get_if<0>(&m_content); }
    /// Returns the value. The operation must have succeeded.
    T const& operator*() const& noexcept { return *std::get_if<0>(&m_content); }
    /// Returns the value. The operation must have succeeded.
    T&& operator*() && noexcept { return std::move(*std::get_if<0>(&m_content)); }
    /// Gives access to the value. The operation must have succeeded.
    T* operator->() noexcept { return std::get_if<0>(&m_content); }
    /// Gives access to the value. The operation must have succeeded.
    T const* operator->() const noexcept { return std::get_if<0>(&m_content); }

    /// Returns why the operation failed. It must have failed.
    Error const& error() const noexcept { return *std::get_if<1>(&m_content); }

    /// Returns the error number, 0 after success.
    std::error_code code() const noexcept { return *this ? std::error_code() : error().code(); }
    /// Returns `code`.
    operator std::error_code() const noexcept { return code(); }

private:
    std::variant<T, Error> m_content;
};

/// The outcome of an operation without a value.
template <>
class [[nodiscard]] Result<void> : public Result<std::monostate> {
public:
    Result() : Result<std::monostate>(std::monostate{}) {}
    /// The operation has failed.
    Result(Error error) : Result<std::monostate>(std::move(error)) {}
};

} // namespace vesk::loop
