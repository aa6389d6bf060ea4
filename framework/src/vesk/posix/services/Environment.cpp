#include <vesk/Environment.h>

#include <cstdlib>
#include <unistd.h>

namespace vesk {

Environment::Environment() noexcept : first(environ), last(environ) {
    // `clearenv` sets `environ` to null.
    while (last != nullptr && *last != nullptr) {
        ++last;
    }
}

char const* Environment::getVariable(char const* name) noexcept {
    char const* const value = getenv(name);
    return value != nullptr ? value : "";
}

} // namespace vesk
