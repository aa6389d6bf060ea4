#include <vesk/SystemError.h>

#include "vesk/posix/detail/SystemErrorText.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <clocale>
#include <cstring>
#include <langinfo.h>
#include <locale.h>

namespace vesk {

namespace detail {

namespace {

#ifdef __GLIBC__
/// The name of the "C" locale. All locales share this one text, so the address is enough to recognize it.
std::atomic<char const*> s_c_name{nullptr};

char const* getCName() noexcept {
    char const* name = s_c_name.load(std::memory_order_relaxed);
    if (name == nullptr) {
        // Returns a static object: nothing to free, and no failure.
        locale_t const c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
        name = nl_langinfo_l(NL_LOCALE_NAME(LC_MESSAGES), c_locale);
        s_c_name.store(name, std::memory_order_relaxed);
    }
    return name;
}

/// Returns whether the C library leaves its messages untranslated. Compares addresses only: another thread may
/// free the name of the process's locale at any time.
bool isUntranslated() noexcept {
    return nl_langinfo(NL_LOCALE_NAME(LC_MESSAGES)) == getCName();
}
#else
bool isUntranslated() noexcept {
    return false;
}
#endif

} // namespace

SystemErrorText::SystemErrorText(int error_number) noexcept {
    constexpr size_t ROOM = 256;
    int const saved_errno = errno;
    char const* text = isUntranslated() ? getErrorDescription(error_number) : nullptr;
    if (text == nullptr) {
        // This is the GNU form of the call: it returns the address of the text, which need not be in the
        // buffer. It takes the lock of the locale, even where there is nothing to translate.
        text = strerror_r(error_number, m_text, ROOM);
    }
    size_t const length = strnlen(text, ROOM - 1);
    memmove(m_text, text, length);
    char* end = m_text + length;
    end = static_cast<char*>(mempcpy(end, " (errno = ", 10));
    end = std::to_chars(end, m_text + sizeof m_text - 2, error_number).ptr;
    memcpy(end, ")", 2);
    errno = saved_errno;
}

UntranslatedErrorText::UntranslatedErrorText(int error_number) noexcept {
    if (char const* const text = getErrorDescription(error_number)) {
        put(text);
    } else {
        put("Unknown error ");
        put(error_number);
    }
    put(" (errno = ");
    put(error_number);
    put(")");
}

void UntranslatedErrorText::put(char const* text) noexcept {
    size_t const room = static_cast<size_t>(m_text + sizeof m_text - m_end);
    size_t const length = std::min(strlen(text), room - 1);
    memcpy(m_end, text, length);
    m_end += length;
    *m_end = '\0';
}

void UntranslatedErrorText::put(int number) noexcept {
    char digits[16]{};
    std::to_chars(digits, digits + sizeof digits - 1, number);
    put(digits);
}

} // namespace detail

std::string SystemError::getString() const {
    return detail::SystemErrorText(m_error_number).get();
}

} // namespace vesk
