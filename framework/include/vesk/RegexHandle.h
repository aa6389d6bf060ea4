#pragma once

#include <vesk/Export.h>

#include <regex.h>

namespace vesk {

/// The owner of a compiled regular expression, which it frees. What is done with it is told by `Regex`.
class VESK_API RegexHandle {
public:
    RegexHandle() noexcept = default;
    RegexHandle(RegexHandle const&) = delete;
    RegexHandle& operator=(RegexHandle const&) = delete;
    ~RegexHandle() { release(); }

    /// Whether there is an expression that can be matched.
    bool isValid() const noexcept { return compiled; }

    /// Reports why matching failed: `Regex::ErrorId::MATCH_FAILED` with the system's text, or `std::CommonErrorId::CONTRACT_BROKEN` if the expression
    /// was not fit for what was asked of it, and `code` does not matter.
    /// @param code                what `regexec` returned
    /// @param sub_matches_wanted  whether sub-matches were asked for
    /// @return -1
    int handleMatchError(int code, bool sub_matches_wanted) const;

protected:
    /// Frees the expression, if there is one (`regfree`).
    void release() noexcept;

    regex_t preg{};
    bool compiled = false;
    bool sub_matches = false; ///< It was to be compiled for sub-matches.
};

} // namespace vesk
