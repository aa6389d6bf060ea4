#pragma once

#include <tarncommon/Export.h>

#include <cstddef>
#include <iterator>
#include <string>
#include <utility>

namespace std::unicode {

/// U+FEFF, the byte-order mark.
TARN_API_INLINE inline constexpr unsigned int BOM = 0xFEFF;

/// U+FFFD, the replacement for a character that cannot be shown or decoded.
TARN_API_INLINE inline constexpr unsigned int REPLACEMENT_CHAR = 0xFFFD;

/// A text as a sequence of Unicode code points. Lengths, positions and iterators count code points.
///
///     auto const name = std::unicode::String::fromUTF8(text);
///     for (unsigned int const code_point : name) { ... }
///
/// An element can hold any 32-bit value, including values that are not code points; `toUTF8` replaces those.
/// Different objects may be used from different threads. Operations that create or extend a text may throw
/// `std::bad_alloc`.
class TARN_API String {
public:
    /// A random-access, read-only iterator over the code points. It is valid until its text changes or is
    /// destroyed.
    class Iterator {
    public:
        /// @{
        /// A type that the standard library requires.
        using iterator_category = random_access_iterator_tag;
        using value_type = unsigned int;
        using difference_type = ptrdiff_t;
        using pointer = void;
        using reference = unsigned int;
        /// @}

        constexpr Iterator() noexcept = default;

        /// @{
        /// Returns a code point.
        unsigned int operator*() const noexcept { return *m_at; }
        unsigned int operator[](difference_type n) const noexcept { return m_at[n]; }
        /// @}

        /// @{
        /// Moves the iterator.
        Iterator& operator++() noexcept { return *this += 1; }
        Iterator& operator--() noexcept { return *this -= 1; }
        Iterator operator++(int) noexcept { return Iterator(m_at++); }
        Iterator operator--(int) noexcept { return Iterator(m_at--); }
        Iterator& operator+=(difference_type n) noexcept {
            m_at += n;
            return *this;
        }
        Iterator& operator-=(difference_type n) noexcept {
            m_at -= n;
            return *this;
        }
        /// @}

        /// @{
        /// Returns a moved iterator, or the distance of two of them, or compares two of them.
        friend Iterator operator+(Iterator i, difference_type n) noexcept { return i += n; }
        friend Iterator operator+(difference_type n, Iterator i) noexcept { return i += n; }
        friend Iterator operator-(Iterator i, difference_type n) noexcept { return i -= n; }
        friend difference_type operator-(Iterator a, Iterator b) noexcept { return a.m_at - b.m_at; }
        friend bool operator==(Iterator a, Iterator b) noexcept { return a.m_at == b.m_at; }
        friend bool operator!=(Iterator a, Iterator b) noexcept { return a.m_at != b.m_at; }
        friend bool operator<(Iterator a, Iterator b) noexcept { return a.m_at < b.m_at; }
        friend bool operator<=(Iterator a, Iterator b) noexcept { return a.m_at <= b.m_at; }
        friend bool operator>(Iterator a, Iterator b) noexcept { return a.m_at > b.m_at; }
        friend bool operator>=(Iterator a, Iterator b) noexcept { return a.m_at >= b.m_at; }
        /// @}

    private:
        friend class String;

        explicit Iterator(char32_t const* at) noexcept : m_at(at) {}

        char32_t const* m_at = nullptr;
    };

    // Member types that standard algorithms and containers require.
    /// @{
    /// A type that the standard library requires.
    using value_type = unsigned int;
    using iterator = Iterator;
    using const_iterator = Iterator;
    /// @}

    /// Creates an empty text.
    String() noexcept;

    /// @{
    /// Copies or moves the text.
    String(String const& other);
    String(String&& other) noexcept;
    String& operator=(String const& other);
    String& operator=(String&& other) noexcept;
    ~String();
    /// @}

    /// Creates a text of one character. The conversion is implicit on purpose: `name + REPLACEMENT_CHAR`.
    TARN_API_INLINE String(unsigned int code_point) : m_text(1, static_cast<char32_t>(code_point)) {}

    /// Decodes UTF-8. Malformed input becomes `REPLACEMENT_CHAR`: one for each truncated sequence that began
    /// as a well-formed one, and one for each byte that cannot begin a sequence. Overlong forms, surrogates
    /// and values beyond U+10FFFF are malformed. Null bytes are characters. A byte-order mark is kept.
    static String fromUTF8(string const& text);

    /// Returns the text in UTF-8. A surrogate, or an element that is not a code point, becomes
    /// `REPLACEMENT_CHAR`.
    string toUTF8() const;

    /// Returns the number of code points.
    TARN_API_INLINE unsigned int getLength() const noexcept {
        return static_cast<unsigned int>(m_text.size());
    }

    /// Returns whether the text has no character.
    bool isEmpty() const noexcept { return m_text.empty(); }

    /// @{
    /// Returns the limits of the text, for loops and algorithms.
    TARN_API_INLINE Iterator begin() const noexcept { return Iterator(m_text.data()); }
    TARN_API_INLINE Iterator end() const noexcept { return Iterator(m_text.data() + m_text.size()); }
    /// @}

    /// Returns `count` characters from position `first`, which counts from 0. A negative `first` counts as 0.
    /// A `first` beyond the end or a negative `count` gives an empty text. A `count` that reaches beyond the
    /// end gives the remaining characters.
    String substr(int first, int count) const;

    /// Returns the characters from `begin` up to but excluding `end`, both iterators of this text. The result
    /// is empty unless `begin` lies before `end`.
    String substr(Iterator const& begin, Iterator const& end) const;

    /// Appends a text.
    String& operator+=(String const& other) {
        m_text += other.m_text;
        return *this;
    }

    /// Returns two texts joined.
    TARN_API_INLINE friend String operator+(String a, String const& b) {
        a += b;
        return a;
    }
    /// @{
    /// Compares two texts.
    TARN_API_INLINE friend bool operator==(String const& a, String const& b) noexcept {
        return a.m_text == b.m_text;
    }
    friend bool operator!=(String const& a, String const& b) noexcept { return a.m_text != b.m_text; }
    /// @}

private:
    explicit String(u32string text) noexcept : m_text(std::move(text)) {}

    u32string m_text;
};

} // namespace std::unicode
