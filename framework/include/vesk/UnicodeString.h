#pragma once

#include <vesk/Export.h>
#include <vesk/RefCounted.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace vesk {

/// A handle on one narrow text that never changes, and the bridge between narrow and wide text.
///
///     vesk::UnicodeString const narrow(wide);           // std::wstring to the locale's encoding
///     int const fd = open(narrow.c_str(), O_RDONLY);
///     std::wstring const back = narrow;                 // and back
///
/// Narrow text is in the encoding of the process's locale, as `setlocale` left it; nothing here assumes UTF-8 unless the
/// locale does.
///
/// A handle either *borrows* its text, which costs no copy: the caller keeps the text alive and unchanged as long as a
/// handle on it lives. Or it *owns* it: the last of the handles that share it frees it. Operations on files take a
/// `UnicodeString const&`, so that a `std::string` is handed over as it stands, borrowed for the one call:
///
///     file.open(directory + "/settings", flags, access);
///
/// Do not keep a handle that was made of a temporary `std::string`.
///
/// Copies share the text (one atomic increment) and may live in different threads; one handle belongs to one thread at a
/// time. No operation reports an error. Memory that cannot be had is waited for through
/// `std::GlobalErrorHandler::doOutOfMem`; only the wide results may throw `std::bad_alloc`. A text is shorter than 4 GiB.
class VESK_API UnicodeString : public RefCounted {
public:
    /// What `c_str()` is encoded in, for those who store it beside a text: 1, the locale's multibyte encoding.
    static uint32_t const s_encoding;

    /// Borrows a text.
    /// @param text  NUL-terminated; null is kept as it is and counts as a text that cannot be converted
    /// @param size  its bytes with the NUL
    UnicodeString(char const* text, unsigned int size)
        : m_data(const_cast<char*>(text)), m_size(size), m_storage(BORROWED) {}

    /// Borrows the text of a string, up to its first NUL.
    UnicodeString(std::string const& text)
        : UnicodeString(text.c_str(), static_cast<uint32_t>(text.length() + 1)) {}

    /// Makes a copy of its own; null is an empty text. May wait for memory.
    UnicodeString(char const* text)
        : m_data(const_cast<char*>(text != nullptr ? text : "")),
          m_size(static_cast<uint32_t>(strlen(m_data) + 1)),
          m_storage(OWNED) {
        checkStorage();
    }

    /// Converts a wide text, up to its first NUL, to the locale's encoding (`wcsrtombs`), into a text of its own. May wait
    /// for memory.
    ///
    /// A character that the locale cannot express leaves the handle without a text: `c_str()` is null and `getSize()`
    /// 0xFFFFFFFF.
    UnicodeString(std::wstring const& text);

    /// Shares the text of `other`.
    UnicodeString(UnicodeString const& other) = default;

    /// Lets go of its text, and shares that of `other`.
    UnicodeString& operator=(UnicodeString const& other) = default;

    VESK_API_INLINE ~UnicodeString() override { decrement(); }

    /// The text in wide characters (`mbsrtowcs`). Empty for an empty text and for one that is malformed in the locale's
    /// encoding: the two cannot be told apart.
    operator std::wstring() const;

    /// The text; null after a failed conversion and after `destroy()`. Valid as long as the borrowed text, or one of the
    /// handles that share an owned one.
    char const* c_str() const noexcept { return m_data; }

    /// The bytes of the text with its NUL, as the constructor was told or found them; 0xFFFFFFFF after a failed
    /// conversion.
    unsigned int getSize() const noexcept { return m_size; }

    /// Frees an owned text and forgets it. The last handle calls it by itself; others that share the text must not use it
    /// any more.
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
