#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/error/ErrorType.h>

#include <string>
#include <type_traits>
#include <utility>

namespace std {

/// One argument of a report together with its type, so that it is printed correctly even if the row's
/// conversion expects another type. `ErrorOutput` creates it from the arguments that it is called with. A
/// text is referenced, not copied.
class ErrorArgument {
public:
    /// The types that an argument can have.
    enum class Kind : unsigned char { TEXT, SIGNED, UNSIGNED, ADDRESS };

    /// @{
    /// Creates an argument. A text must exist as long as the argument.
    ErrorArgument(char const* text) noexcept : m_kind(Kind::TEXT), m_text(text) {}
    ErrorArgument(string const& text) noexcept : m_kind(Kind::TEXT), m_text(text.c_str()) {}
    ErrorArgument(void const* address) noexcept : m_kind(Kind::ADDRESS), m_address(address) {}
    /// @}

    template <typename T, enable_if_t<is_integral_v<T> || is_enum_v<T>, int> = 0>
    /// Creates an argument from an integer or an enumeration.
    ErrorArgument(T value) noexcept : m_kind(isSigned<T>() ? Kind::SIGNED : Kind::UNSIGNED) {
        if constexpr (isSigned<T>()) {
            // NOLINTNEXTLINE(bugprone-signed-char-misuse): a number, whatever its type is called.
            m_signed = static_cast<long long>(value);
        } else {
            m_unsigned = static_cast<unsigned long long>(value);
        }
    }

    /// Returns the type.
    Kind getKind() const noexcept { return m_kind; }
    /// @{
    /// Returns the value, for an argument of this type only.
    char const* getText() const noexcept { return m_text; }
    long long getSigned() const noexcept { return m_signed; }
    unsigned long long getUnsigned() const noexcept { return m_unsigned; }
    void const* getAddress() const noexcept { return m_address; }
    /// @}

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

/// The means to make a report in the calling thread's store, at the place of the failure and in two calls:
///
///     std::ErrorOutput("framework/src/vesk/posix/Mutex", __LINE__, true)(
///         vesk::Mutex::ErrorId::LOCK_FAILED, text);
///
/// Making a report uses no heap, takes no lock, does not block and cannot fail. It costs about as much as
/// formatting the text. A report that discards a chain also runs the action of the store.
class TARN_API ErrorOutput {
public:
    /// Notes the place of the failure.
    /// @param file       source path without extension; kept by pointer
    /// @param line       source line
    /// @param new_chain  true: the report is the root cause of a new chain, and a pending chain is discarded.
    ///                   False: the report goes on top of the pending chain, or starts a chain if none is
    ///                   pending. Pass the opposite of `ErrorStorage::isError` where a lower level may or may
    ///                   not have reported.
    TARN_API_INLINE ErrorOutput(char const* file, int line, bool new_chain) noexcept
        : m_file(file), m_line(line), m_new_chain(new_chain) {}

    /// Reports the row `id` of `type` with the arguments that the row expects.
    ///
    /// The arguments are texts, integers, enumerators or addresses, and are read only during this call. Each
    /// prints according to its own type, whatever the conversion is: an integer in place of a `%s` prints as
    /// a number. A conversion without an argument prints "?". A surplus argument is ignored. An id outside of
    /// the table gives the text "unknown error" with the id.
    template <typename... Args>
    void operator()(ErrorType const& type, int id, Args const&... args) const noexcept {
        if constexpr (sizeof...(Args) == 0) {
            make(type, id, nullptr, 0);
        } else {
            ErrorArgument const list[] = {ErrorArgument(args)...};
            make(type, id, list, sizeof...(Args));
        }
    }

    /// Reports the row that `id` names, an enumerator such as `vesk::Mutex::ErrorId::INCONSISTENT`. The
    /// enumeration implies the family.
    template <typename Id, typename... Args, typename = decltype(familyOf(declval<Id>()))>
    void operator()(Id id, Args const&... args) const noexcept {
        operator()(familyOf(id), static_cast<int>(id), args...);
    }

    /// Reports a copy of an existing report, with the file and line of this `ErrorOutput`.
    void operator()(ErrorObject const& object) const noexcept;

private:
    void make(ErrorType const& type, int id, ErrorArgument const* args, unsigned int count) const noexcept;

    // Exported as `operator()(ErrorType const&, int, ...)`, for programs that were linked against that
    // operation. It has another name here so that no compiled call selects it: it cannot see the types or the
    // number of its arguments.
    void reportVariadic(ErrorType const& type, int id, ...) const noexcept
        __asm__("_ZNKSt11ErrorOutputclERKSt9ErrorTypeiz");

    char const* m_file;
    int m_line;
    bool m_new_chain;
};

} // namespace std
