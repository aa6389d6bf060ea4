#include <vesk/Regex.h>

#include "vesk/common/Report.h"

#include <tarncommon/error/CommonError.h>

#include <algorithm>
#include <iterator>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Regex";

constexpr std::ErrorID ROWS[] = {
    {0, "Syntax error in regular expression: %s", 1},
    {1, "Memory exhausted in regular expression handling: %s", 1},
    {2, "Error matching regular expression: %s", 1},
};

static_assert(REG_ESPACE == 12 && REG_ESIZE == 15);

/// The system's text for a failure.
class RegexErrorText {
public:
    RegexErrorText(int code, regex_t const& preg) noexcept { regerror(code, &preg, m_text, sizeof m_text); }

    char const* get() const noexcept { return m_text; }

private:
    char m_text[256];
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Regex::Error(ROWS, std::size(ROWS));

void RegexHandle::release() noexcept {
    if (compiled) {
        regfree(&preg);
        compiled = false;
    }
}

int RegexHandle::handleMatchError(int code, bool sub_matches_wanted) const {
    if (compiled && (!sub_matches_wanted || sub_matches)) {
        report(SOURCE, Chain::NEW, Regex::ErrorId::MATCH_FAILED, RegexErrorText(code, preg).get());
    } else {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            compiled ? "sub matches requested but regex was not compiled for sub matches"
                     : "match() was called on invalid object");
    }
    return -1;
}

int Regex::compile(char const* pattern, unsigned int const& flags) {
    release();
    if (pattern == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "NULL pointer given for pattern");
        return 1;
    }
    int const code = regcomp(
        &preg, pattern,
        REG_EXTENDED | ((flags & IGNORE_CASE) != 0 ? REG_ICASE : 0) |
            ((flags & SUB_MATCHES) != 0 ? 0 : REG_NOSUB));
    sub_matches = (flags & SUB_MATCHES) != 0;
    if (code == 0) {
        compiled = true;
        return 0;
    }
    if (code == REG_ESPACE || code == REG_ESIZE) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::OUT_OF_MEMORY);
        report(SOURCE, Chain::ON_TOP, ErrorId::OUT_OF_MEMORY, RegexErrorText(code, preg).get());
    } else {
        report(SOURCE, Chain::UNKNOWN, ErrorId::SYNTAX_ERROR, RegexErrorText(code, preg).get());
    }
    return 1;
}

int Regex::match(char const* subject, SubMatch* found, unsigned int count) const {
    // `regexec` fills an array of `regmatch_t`.
    static_assert(sizeof(SubMatch) == sizeof(regmatch_t));
    bool const sub_matches_wanted = found != nullptr && count != 0;
    if (sub_matches_wanted) {
        std::fill_n(found, count, SubMatch());
    }
    if (!compiled || (sub_matches_wanted && !sub_matches)) {
        return handleMatchError(REG_NOMATCH, sub_matches_wanted);
    }
    if (subject == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "NULL pointer given for subject");
        return -1;
    }
    int const code = regexec(&preg, subject, sub_matches_wanted ? count : 0, found, 0);
    if (code == 0 || code == REG_NOMATCH) {
        return code == 0 ? 0 : 1;
    }
    return handleMatchError(code, sub_matches_wanted);
}

} // namespace vesk
