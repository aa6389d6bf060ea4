#pragma once

#include "support/Child.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <initializer_list>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

/// Support for tests that run a child with fewer privileges, or with separate mounts.

namespace support {

/// Runs `body` in a child. Failures of the child become failures of the test.
inline void expectInChild(std::function<void()> const& body) {
    ChildEnd const end = runInChild(body);
    EXPECT_EQ(0, end.exit_code) << "signal " << end.signal << "\n" << end.output << end.errors;
}

/// Switches the calling process, which must be a child, to the unprivileged user 65534. Returns whether that
/// succeeded.
inline bool dropRights() {
    constexpr unsigned int NOBODY = 65534;
    return setgroups(0, nullptr) == 0 && setgid(NOBODY) == 0 && setuid(NOBODY) == 0;
}

/// Gives the calling process, which must be a child, a mount namespace that ends with it. Returns whether
/// that succeeded.
inline bool separateMounts() {
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Mounts an empty file system in memory.
/// @param options  as for `mount -t tmpfs -o`
inline bool mountMemory(std::string const& where, char const* options = "", unsigned long flags = 0) {
    return mount("memory", where.c_str(), "tmpfs", flags, options) == 0;
}

inline bool maySeparateMounts() {
    return runInChild([] {
               if (!separateMounts() || !mountMemory("/tmp")) {
                   ADD_FAILURE() << strerror(errno);
               }
           }).exit_code == 0;
}

/// Returns whether a process may set these nice values one after the other.
inline bool mayTakeNice(std::initializer_list<int> values) {
    return runInChild([values] {
               for (int const value : values) {
                   if (setpriority(PRIO_PROCESS, 0, value) != 0) {
                       ADD_FAILURE() << strerror(errno);
                   }
               }
           }).exit_code == 0;
}

} // namespace support

#define VESK_SKIP_UNLESS_NICE_MAY_BE(...)                                                                    \
    if (!support::mayTakeNice({__VA_ARGS__})) {                                                              \
        GTEST_SKIP() << "nice values that the test needs, " #__VA_ARGS__ ", are denied to this process";     \
    }

#define VESK_SKIP_UNLESS_ROOT()                                                                              \
    if (geteuid() != 0) {                                                                                    \
        GTEST_SKIP() << "only root can drop its privileges";                                                 \
    }

#define VESK_SKIP_WITHOUT_MOUNTS()                                                                           \
    if (!support::maySeparateMounts()) {                                                                     \
        GTEST_SKIP() << "a mount namespace of its own is not granted to the test";                           \
    }
