#pragma once

#include <tarncommon/Export.h>

namespace tarnbase {

/// Base of the classes that own something of the system: neither copied nor assigned.
class NonCopyable {
public:
    NonCopyable(NonCopyable const&) = delete;
    NonCopyable& operator=(NonCopyable const&) = delete;

protected:
    constexpr NonCopyable() noexcept = default;
    ~NonCopyable() = default;
};

} // namespace tarnbase
