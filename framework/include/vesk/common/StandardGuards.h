#pragma once

#include <vesk/Export.h>

// Declares the standard guards without their headers, which would take longer to compile than those of a lock.
#if __has_include(<bits/c++config.h>)
#include <bits/c++config.h>
#endif
#if defined(__GLIBCXX__)
namespace std {
_GLIBCXX_BEGIN_NAMESPACE_VERSION
template <typename>
class lock_guard;
template <typename>
class unique_lock;
template <typename...>
class scoped_lock;
_GLIBCXX_END_NAMESPACE_VERSION
} // namespace std
#else
#include <mutex>
#endif

/// Makes a program that uses a guard of the standard library with a lock of this one fail to compile. These
/// guards ignore the result of `lock`, and would enter without the lock. Used outside any namespace.
#define VESK_REFUSE_STANDARD_GUARD(guard, lock, own_guard)                                                   \
    template <>                                                                                              \
    class std::guard<lock> {                                                                                 \
    public:                                                                                                  \
        template <typename Lock, typename... Arguments>                                                      \
        explicit guard(Lock const&, Arguments&&...) {                                                        \
            static_assert(                                                                                   \
                sizeof(Lock) == 0, "std::" #guard " ignores the result of lock(): use " #own_guard);         \
        }                                                                                                    \
    };
#define VESK_REFUSE_STANDARD_GUARDS(lock, own_guard)                                                         \
    VESK_REFUSE_STANDARD_GUARD(lock_guard, lock, own_guard)                                                  \
    VESK_REFUSE_STANDARD_GUARD(lock_guard, lock const, own_guard)                                            \
    VESK_REFUSE_STANDARD_GUARD(unique_lock, lock, own_guard)                                                 \
    VESK_REFUSE_STANDARD_GUARD(unique_lock, lock const, own_guard)                                           \
    VESK_REFUSE_STANDARD_GUARD(scoped_lock, lock, own_guard)                                                 \
    VESK_REFUSE_STANDARD_GUARD(scoped_lock, lock const, own_guard)
