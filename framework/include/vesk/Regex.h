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
/// Several threads may match with one object at once, while none compiles. Characters are those of the process's locale.
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
        IGNORE_CASE = 1, ///< Upper and lower case are alike.
        SUB_MATCHES = 2, ///< `match` can tell what matched where. Matching is slower then.
    };

    /// Where the whole expression matched, or the part in one of its parentheses.
    class SubMatch : private regmatch_t {
    public:
        SubMatch() noexcept : regmatch_t{-1, -1} {}

        /// Whether this part took part in the match. What is told below needs that.
        bool isSet() const noexcept { return rm_so >= 0; }

        /// Bytes of the subject before it.
        unsigned int getPosition() const noexcept { return static_cast<unsigned int>(rm_so); }

        /// Its length in bytes.
        unsigned int getLength() const noexcept { return static_cast<unsigned int>(rm_eo - rm_so); }

        /// Its text in the subject that was matched, which must still be there; empty if it is not set.
        std::string_view in(char const* subject) const noexcept {
            return isSet() ? std::string_view(subject + getPosition(), getLength()) : std::string_view();
        }

    private:
        friend class Regex;
    };

    /// Compiles an expression in place of the one before, which is gone even if this fails (`regcomp` with
    /// `REG_EXTENDED`).
    /// @param flags  bits of `Flag`; others are ignored
    /// @return 0, or 1 on failure, nothing can be matched then: `ErrorId::SYNTAX_ERROR`, on top of what is pending; `ErrorId::OUT_OF_MEMORY` on top of
    ///         `CommonErrorId::OUT_OF_MEMORY`; `CommonErrorId::CONTRACT_BROKEN` if `pattern` is null
    int compile(char const* pattern, unsigned int const& flags);

    /// Looks for the first place in `subject` where the expression matches (`regexec`). Does not block.
    /// @param subject  text with an end
    /// @return 0 it matches; 1 it does not, which is not reported; -1 on failure: `ErrorId::MATCH_FAILED`; `CommonErrorId::CONTRACT_BROKEN` if nothing
    ///         is compiled or `subject` is null
    int match(char const* subject) const { return match(subject, nullptr, 0); }

    /// The same, and tells what matched where.
    /// @param found  one for the whole match and one for each opening parenthesis, from left to right, as far as `count`
    ///               goes. Those that there is nothing to tell for are not set: parentheses that took no part,
    ///               numbers that the expression does not have, all of them if the result is not 0
    /// @param count  how many sub-matches are wanted; with 0 it does not matter what the expression was compiled for
    /// @return as above; -1 with `CommonErrorId::CONTRACT_BROKEN` also if the expression was compiled without `SUB_MATCHES`
    int match(char const* subject, SubMatch* found, unsigned int count) const;

    /// The same for an array.
    template <size_t N>
    int match(char const* subject, SubMatch (&found)[N]) const {
        return match(subject, found, static_cast<unsigned int>(N));
    }

    /// How many sub-matches the expression has, the whole one included: what a caller who was given the expression makes
    /// room for. 0 without `SUB_MATCHES` or an expression.
    unsigned int getSubMatchCount() const noexcept {
        return compiled && sub_matches ? static_cast<unsigned int>(preg.re_nsub + 1) : 0;
    }
};

} // namespace vesk
