#pragma once

#include "support/Inject.h"

#include <cwchar>
#include <functional>
#include <vector>

/// Records the conversions between narrow and wide text, and interferes with them. Must be included in only one file of
/// a test program, because it replaces the two functions of libc, also for the libraries.

namespace support {

/// One call of a conversion function.
struct Pass {
    bool measures; ///< Without a destination.
    bool is_fresh; ///< In the initial shift state.
    size_t limit;
    size_t result;
};

/// Records each conversion during its lifetime. Only one can exist at a time.
class Conversions : tarnbase::NonCopyable {
public:
    Conversions() { s_current = this; }
    ~Conversions() { s_current = nullptr; }

    /// Runs before each pass, counted from 1.
    std::function<void(size_t)> before = [](size_t) {};
    /// Returns the result to use for that of a pass.
    std::function<size_t(size_t, size_t)> change = [](size_t, size_t result) { return result; };

    std::vector<Pass> const& getPasses() const { return m_passes; }

    template <typename To, typename From>
    static size_t convert(Injected& function, To* to, From const** from, size_t limit, mbstate_t* state) {
        auto* const real =
            reinterpret_cast<size_t (*)(To*, From const**, size_t, mbstate_t*)>(function.getReal());
        if (s_current == nullptr) {
            return real(to, from, limit, state);
        }
        Conversions& me = *s_current;
        size_t const number = me.m_passes.size() + 1;
        me.before(number);
        bool const is_fresh = state != nullptr && mbsinit(state) != 0;
        size_t const result = me.change(number, real(to, from, limit, state));
        me.m_passes.push_back({to == nullptr, is_fresh, limit, result});
        return result;
    }

private:
    static inline Conversions* s_current = nullptr;

    std::vector<Pass> m_passes;
};

inline Injected inject_wcsrtombs("wcsrtombs");
inline Injected inject_mbsrtowcs("mbsrtowcs");

} // namespace support

extern "C" size_t wcsrtombs(char* to, wchar_t const** from, size_t limit, mbstate_t* state) {
    return support::Conversions::convert(support::inject_wcsrtombs, to, from, limit, state);
}

extern "C" size_t mbsrtowcs(wchar_t* to, char const** from, size_t limit, mbstate_t* state) {
    return support::Conversions::convert(support::inject_mbsrtowcs, to, from, limit, state);
}
