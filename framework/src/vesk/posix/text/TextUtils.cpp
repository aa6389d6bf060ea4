#include <vesk/TextUtils.h>

#include <cstring>
#include <cwchar>

namespace vesk {

unsigned int strnlen(char const* text, unsigned int max) noexcept {
    return static_cast<unsigned int>(::strnlen(text, max));
}

unsigned int wcsnlen(wchar_t const* text, unsigned int max) noexcept {
    return static_cast<unsigned int>(::wcsnlen(text, max));
}

} // namespace vesk
