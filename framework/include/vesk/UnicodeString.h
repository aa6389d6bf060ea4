#pragma once

#include <vesk/Export.h>
#include <vesk/RefCounted.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace vesk {

/// A handle on an immutable narrow text, and the conversion between narrow and wide text.
///
///     vesk::UnicodeString const narrow(wide);           // std::wstring to the locale's encoding
///     int const fd = open(narrow.c_str(), O_RDONLY);
///     std::wstring const back = narrow;                 // and back
///
/// Narrow text is in the encoding of the process's locale, as set by `setlocale`; nothing here assumes UTF-8
/// unless the locale does. In a UTF-8 locale, valid text is converted without the functions of the C library,
/// with the same results.
///
/// A handle either *borrows* or *owns* its text. Borrowing makes no copy: the caller must keep the text valid
/// and unchanged as long as a handle refers to it. An owned text is freed by the last handle that shares it.
/// Operations on files take a `UnicodeString const&`, so that a `std::string` is passed without a copy and
/// borrowed for the duration of the call:
///
///     file.open(directory + "/settings", flags, access);
///
/// Do not keep a handle that was made from a temporary `std::string`.
///
/// Copies share the text (one atomic increment) and may be used in different threads; one handle must be used
/// by one thread at a time. No operation reports an error. If an allocation fails, it is repeated after
/// `std::GlobalErrorHandler::doOutOfMem`; only the wide results may throw `std::bad_alloc`. A text must be
/// shorter than 4 GiB.
class VESK_API UnicodeString : public RefCounted {
public:
    /// The encoding of `c_str()`, for callers that store it beside a text: 1, the multibyte encoding of the
    /// locale.
    static uint32_t const s_encoding;

    /// Borrows a text.
    /// @param text  NUL-terminated; null is kept and counts as a text that cannot be converted
    /// @param size  its bytes including the NUL
    UnicodeString(char const* text, unsigned int size)
        : m_data(const_cast<char*>(text)), m_size(size), m_storage(BORROWED) {}

    /// Borrows the text of a string. The text ends at its first NUL; `getSize()` counts all bytes of the
    /// string.
    UnicodeString(std::string const& text)
        : UnicodeString(text.c_str(), static_cast<uint32_t>(text.length() + 1)) {}

    /// Copies a text and owns the copy; null gives an empty text. May block until memory is available.
    UnicodeString(char const* text)
        : m_data(const_cast<char*>(text != nullptr ? text : "")),
          m_size(static_cast<uint32_t>(strlen(m_data) + 1)),
          m_storage(OWNED) {
        checkStorage();
    }

    /// Converts a wide text, up to its first NUL, to the encoding of the locale (`wcsrtombs`), and owns the
    /// result. May block until memory is available.
    ///
    /// A character that the locale cannot express leaves the handle without a text: `c_str()` is null and
    /// `getSize()` is 0xFFFFFFFF.
    UnicodeString(std::wstring const& text);

    /// Shares the text of `other`.
    UnicodeString(UnicodeString const& other) = default;

    /// Releases its text and shares the text of `other`.
    UnicodeString& operator=(UnicodeString const& other) = default;

    VESK_API_INLINE ~UnicodeString() override { decrement(); }

    /// Returns the text in wide characters (`mbsrtowcs`). The result is empty for an empty text and for a
    /// text that is malformed in the encoding of the locale; the two cannot be distinguished.
    operator std::wstring() const;

    /// Returns the text; null after a failed conversion and after `destroy()`. It is valid as long as the
    /// borrowed text, or as any of the handles that share an owned text.
    char const* c_str() const noexcept { return m_data; }

    /// Returns the bytes of the text including its NUL, as the constructor received or computed them;
    /// 0xFFFFFFFF after a failed conversion.
    unsigned int getSize() const noexcept { return m_size; }

    /// Frees an owned text and forgets it. The last handle calls it automatically. After an explicit call,
    /// other handles that share the text must not use it.
    /// @return 0
    int destroy() override;

private:
    static constexpr uint32_t BORROWED = 0;
    static constexpr uint32_t OWNED = 2;

    void checkStorage();

    char* m_data;
    uint32_t m_size;
    uint32_t m_storage;
};

} // namespace vesk
