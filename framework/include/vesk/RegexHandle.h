#pragma once

#include <vesk/Export.h>

#include <regex.h>

namespace vesk {

/// Owner of a compiled regular expression, which it frees. `Regex` provides the operations on it.
class VESK_API RegexHandle {
public:
    RegexHandle() noexcept = default;
    RegexHandle(RegexHandle const&) = delete;
    RegexHandle& operator=(RegexHandle const&) = delete;
    ~RegexHandle() { release(); }

    /// Returns whether an expression is compiled.
    bool isValid() const noexcept { return compiled; }

    /// Reports why matching failed: `Regex::ErrorId::MATCH_FAILED` with the system's text, or
    /// `std::CommonErrorId::CONTRACT_BROKEN`, whatever the `code`, if no expression is compiled or if
    /// sub-matches were requested from an expression that was compiled without them.
    /// @param code                the result of `regexec`
    /// @param sub_matches_wanted  whether sub-matches were requested
    /// @return -1
    int handleMatchError(int code, bool sub_matches_wanted) const;

protected:
    /// Frees the expression if there is one (`regfree`).
    void release() noexcept;

    /// The compiled expression.
    regex_t preg{};
    /// Whether `preg` has an expression.
    bool compiled = false;
    bool sub_matches = false; ///< Whether the last `compile` requested sub-matches.
};

} // namespace vesk
