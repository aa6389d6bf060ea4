#pragma once

#include <vesk/Export.h>
#include <vesk/RegexHandle.h>

#include <tarncommon/error/ErrorType.h>

#include <cstddef>
#include <string_view>

namespace vesk {

/// A POSIX extended regular expression.
///
///     vesk::Regex version;
///     vesk::Regex::SubMatch parts[3];
///     if (version.compile("^v([0-9]+)\\.([0-9]+)", vesk::Regex::SUB_MATCHES) == 0 &&
///         version.match(subject, parts) == 0) {
///         use(parts[1].in(subject), parts[2].in(subject));
///     }
///
/// Several threads may match with one object at the same time, as long as none of them compiles. Characters
/// are interpreted in the locale of the process.
class VESK_API Regex : public RegexHandle {
public:
    /// Failures of regular expressions. Has no parent. The argument is the text of `regerror`.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        SYNTAX_ERROR = 0,  ///< The expression has a syntax error.
        OUT_OF_MEMORY = 1, ///< The expression needs more memory than there is.
        MATCH_FAILED = 2,  ///< Matching failed.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Bits of the flags of `compile`.
    enum Flag : unsigned int {
        IGNORE_CASE = 1, ///< Ignores the difference between upper and lower case.
        SUB_MATCHES = 2, ///< Lets `match` return sub-matches. Makes matching slower.
    };

    /// The position at which the whole expression, or one of its parenthesized parts, matched.
    class SubMatch : private regmatch_t {
    public:
        SubMatch() noexcept : regmatch_t{-1, -1} {}

        /// Returns whether this part took part in the match. `getPosition` and `getLength` are valid only
        /// then.
        bool isSet() const noexcept { return rm_so >= 0; }

        /// Returns the offset of the match in the subject, in bytes.
        unsigned int getPosition() const noexcept { return static_cast<unsigned int>(rm_so); }

        /// Returns the length of the match in bytes.
        unsigned int getLength() const noexcept { return static_cast<unsigned int>(rm_eo - rm_so); }

        /// Returns the matched text, or an empty text if the part is not set.
        /// @param subject  the text that was passed to `match`, unchanged
        std::string_view in(char const* subject) const noexcept {
            return isSet() ? std::string_view(subject + getPosition(), getLength()) : std::string_view();
        }

    private:
        friend class Regex;
    };

    /// Compiles an expression (`regcomp` with `REG_EXTENDED`). Discards the previous expression, even on
    /// failure.
    /// @param flags  bits of `Flag`; others are ignored
    /// @return 0 on success; 1 on failure, after which nothing can be matched: `ErrorId::SYNTAX_ERROR`, on
    ///         top of pending reports; `ErrorId::OUT_OF_MEMORY` on top of `CommonErrorId::OUT_OF_MEMORY`;
    ///         `CommonErrorId::CONTRACT_BROKEN` if `pattern` is null
    [[nodiscard]] int compile(char const* pattern, unsigned int const& flags);

    /// Finds the first match of the expression in `subject` (`regexec`). Does not block.
    /// @param subject  null-terminated text
    /// @return 0 if it matches; 1 if it does not, which is not reported; -1 on failure:
    ///         `ErrorId::MATCH_FAILED`; `CommonErrorId::CONTRACT_BROKEN` if no expression is compiled or
    ///         `subject` is null
    [[nodiscard]] int match(char const* subject) const { return match(subject, nullptr, 0); }

    /// Does the same, and returns the sub-matches.
    /// @param subject  null-terminated text
    /// @param found    receives the whole match, then one entry for each opening parenthesis from left to
    ///                 right, at most `count` entries. Entries without a match are not set: parentheses that
    ///                 took no part, numbers that the expression does not have, and all entries if the result
    ///                 is not 0
    /// @param count    number of sub-matches to return; with 0 the expression need not be compiled with
    ///                 `SUB_MATCHES`
    /// @return as above; -1 with `CommonErrorId::CONTRACT_BROKEN` also if the expression was compiled without
    ///         `SUB_MATCHES`
    int match(char const* subject, SubMatch* found, unsigned int count) const;

    /// Does the same for an array.
    template <size_t N>
    int match(char const* subject, SubMatch (&found)[N]) const {
        return match(subject, found, static_cast<unsigned int>(N));
    }

    /// Returns the number of sub-matches of the expression, including the whole match: the array size that a
    /// caller needs for an expression that it does not know. Returns 0 without `SUB_MATCHES` or without an
    /// expression.
    unsigned int getSubMatchCount() const noexcept {
        return compiled && sub_matches ? static_cast<unsigned int>(preg.re_nsub + 1) : 0;
    }
};

} // namespace vesk
