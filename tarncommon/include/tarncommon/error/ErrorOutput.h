#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/error/ErrorType.h>

#include <string>
#include <type_traits>
#include <utility>

namespace std {

/// One argument of a report, with its type: what a row's conversion asks for and what it gets may differ, and the
/// text is right all the same. Made by `ErrorOutput` from what it is called with; holds no copy of a text.
class ErrorArgument {
public:
    enum class Kind : unsigned char { TEXT, SIGNED, UNSIGNED, ADDRESS };

    ErrorArgument(char const* text) noexcept : m_kind(Kind::TEXT), m_text(text) {}
    ErrorArgument(string const& text) noexcept : m_kind(Kind::TEXT), m_text(text.c_str()) {}
    ErrorArgument(void const* address) noexcept : m_kind(Kind::ADDRESS), m_address(address) {}

    template <typename T, enable_if_t<is_integral_v<T> || is_enum_v<T>, int> = 0>
    ErrorArgument(T value) noexcept : m_kind(isSigned<T>() ? Kind::SIGNED : Kind::UNSIGNED) {
        if constexpr (isSigned<T>()) {
            m_signed = static_cast<long long>(value);
        } else {
            m_unsigned = static_cast<unsigned long long>(value);
        }
    }

    Kind getKind() const noexcept { return m_kind; }
    char const* getText() const noexcept { return m_text; }
    long long getSigned() const noexcept { return m_signed; }
    unsigned long long getUnsigned() const noexcept { return m_unsigned; }
    void const* getAddress() const noexcept { return m_address; }

private:
    template <typename T>
    static constexpr bool isSigned() noexcept {
        if constexpr (is_enum_v<T>) {
            return is_signed_v<underlying_type_t<T>>;
        } else {
            return is_signed_v<T>;
        }
    }

    Kind m_kind;
    union {
        char const* m_text;
        long long m_signed;
        unsigned long long m_unsigned;
        void const* m_address;
    };
};

/// Makes a report in the calling thread's store, at the spot of the failure and in two calls:
///
///     std::ErrorOutput("framework/src/vesk/posix/Mutex", __LINE__, true)(vesk::Mutex::ErrorId::LOCK_FAILED, text);
///
/// Never allocates, locks, blocks or fails; costs about as much as formatting the text.
class TARN_API ErrorOutput {
public:
    /// Notes the place.
    /// @param file       source path without extension; kept by pointer
    /// @param line       source line
    /// @param new_chain  true: the report is the root cause of a new chain, and what is pending is given up.
    ///                   False: it goes on top of the pending chain, or starts one if none is pending. Pass
    ///                   `!ErrorStorage::isError(true)` where a lower level may or may not have reported.
    TARN_API_INLINE ErrorOutput(char const* file, int line, bool new_chain) noexcept
        : m_file(file), m_line(line), m_new_chain(new_chain) {}

    /// Reports the row `id` of `type` with the arguments that the row asks for.
    ///
    /// The arguments are texts, integers, enumerators or addresses, read only during this call, and print by their
    /// own type whatever the conversion is: an integer in place of a `%s` prints as a number. A conversion without
    /// an argument prints "?", an argument too many does not show. An id outside of the table gives the text
    /// "unknown error" and the id.
    template <typename... Args>
    void operator()(ErrorType const& type, int id, Args const&... args) const noexcept {
        if constexpr (sizeof...(Args) == 0) {
            make(type, id, nullptr, 0);
        } else {
            ErrorArgument const list[] = {ErrorArgument(args)...};
            make(type, id, list, sizeof...(Args));
        }
    }

    /// Reports the row that `id` names, an enumerator such as `vesk::Mutex::ErrorId::INCONSISTENT`. The enumeration
    /// implies the family.
    template <typename Id, typename... Args, typename = decltype(familyOf(declval<Id>()))>
    void operator()(Id id, Args const&... args) const noexcept {
        operator()(familyOf(id), static_cast<int>(id), args...);
    }

    /// Reports a copy of an existing report; file and line are those of this `ErrorOutput`.
    void operator()(ErrorObject const& object) const noexcept;

private:
    void make(ErrorType const& type, int id, ErrorArgument const* args, unsigned int count) const noexcept;

    // `operator()(ErrorType const&, int, ...)` for programs that were linked against it. Callers that compile must not find
    // it: it cannot see the types of its arguments, nor that there are none.
    void reportVariadic(ErrorType const& type, int id, ...) const noexcept
        __asm__("_ZNKSt11ErrorOutputclERKSt9ErrorTypeiz");

    char const* m_file;
    int m_line;
    bool m_new_chain;
};

} // namespace std
