#pragma once

#include <tarncommon/Export.h>

namespace tarnbase {

/// Base of classes that own a resource of the system. Their objects can be neither copied nor assigned.
class NonCopyable {
public:
    NonCopyable(NonCopyable const&) = delete;
    NonCopyable& operator=(NonCopyable const&) = delete;

protected:
    constexpr NonCopyable() noexcept = default;
    ~NonCopyable() = default;
};

} // namespace tarnbase
