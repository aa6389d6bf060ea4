#pragma once

#include <tarncommon/Export.h>

#include <cstddef>
#include <iterator>
#include <string>
#include <utility>

namespace std::unicode {

/// U+FEFF, the byte-order mark.
TARN_API_INLINE inline constexpr unsigned int BOM = 0xFEFF;

/// U+FFFD, which stands for what cannot be shown or read.
TARN_API_INLINE inline constexpr unsigned int REPLACEMENT_CHAR = 0xFFFD;

/// A text as a sequence of Unicode code points, one element each: lengths, positions and iterators count code points.
///
///     auto const name = std::unicode::String::fromUTF8(text);
///     for (unsigned int const code_point : name) { ... }
///
/// Any 32-bit value can be an element, also one that is no code point; only `toUTF8` minds. A value class: different
/// objects may be used from different threads. What makes a text may throw `std::bad_alloc`.
class TARN_API String {
public:
    /// Walks over the code points. It can go to any position, reads only, and is valid until its text changes or ends.
    class Iterator {
    public:
        using iterator_category = random_access_iterator_tag;
        using value_type = unsigned int;
        using difference_type = ptrdiff_t;
        using pointer = void;
        using reference = unsigned int;

        constexpr Iterator() noexcept = default;

        unsigned int operator*() const noexcept { return *m_at; }
        unsigned int operator[](difference_type n) const noexcept { return m_at[n]; }

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

    private:
        friend class String;

        explicit Iterator(char32_t const* at) noexcept : m_at(at) {}

        char32_t const* m_at = nullptr;
    };

    // The names that algorithms look for.
    using value_type = unsigned int;
    using iterator = Iterator;
    using const_iterator = Iterator;

    /// An empty text.
    String() noexcept;

    String(String const& other);
    String(String&& other) noexcept;
    String& operator=(String const& other);
    String& operator=(String&& other) noexcept;
    ~String();

    /// A text of one character. A code point can stand where a text is asked for: `name + REPLACEMENT_CHAR`.
    TARN_API_INLINE String(unsigned int code_point) : m_text(1, static_cast<char32_t>(code_point)) {}

    /// Reads UTF-8. What is malformed becomes `REPLACEMENT_CHAR`: one for each sequence that breaks off, as long as it was
    /// the beginning of a well-formed one, and one for each byte that begins none. Overlong forms, surrogates and what lies
    /// beyond U+10FFFF are malformed. Null bytes are characters; a byte-order mark stays.
    static String fromUTF8(string const& text);

    /// The text in UTF-8. An element that is no code point, or a surrogate, becomes `REPLACEMENT_CHAR`.
    string toUTF8() const;

    /// How many code points there are.
    TARN_API_INLINE unsigned int getLength() const noexcept {
        return static_cast<unsigned int>(m_text.size());
    }

    bool isEmpty() const noexcept { return m_text.empty(); }

    TARN_API_INLINE Iterator begin() const noexcept { return Iterator(m_text.data()); }
    TARN_API_INLINE Iterator end() const noexcept { return Iterator(m_text.data() + m_text.size()); }

    /// `count` characters from position `first` on, which counts from 0. A `first` below 0 counts as 0, one beyond the end
    /// gives an empty text; so does a negative `count`; one that reaches beyond the end gives what there is.
    String substr(int first, int count) const;

    /// The characters from `begin` up to the one before `end`, both iterators of this text. Empty if `end` is not behind
    /// `begin`.
    String substr(Iterator const& begin, Iterator const& end) const;

    String& operator+=(String const& other) {
        m_text += other.m_text;
        return *this;
    }

    TARN_API_INLINE friend String operator+(String a, String const& b) {
        a += b;
        return a;
    }
    TARN_API_INLINE friend bool operator==(String const& a, String const& b) noexcept {
        return a.m_text == b.m_text;
    }
    friend bool operator!=(String const& a, String const& b) noexcept { return a.m_text != b.m_text; }

private:
    explicit String(u32string text) noexcept : m_text(std::move(text)) {}

    u32string m_text;
};

} // namespace std::unicode
