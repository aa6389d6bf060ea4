#pragma once

#include "support/Chain.h"

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/stream/IBinInputStream.h>
#include <tarncommon/stream/IBinOutputStream.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

/// What the tests of files share.

namespace support {

/// How a file's failure is told: the one row of `SysError` with the system's text.
inline testing::AssertionResult failureIs(int error, int id) {
    using vesk::SysError;
    return chainIs({{SysError, id, rowText(SysError, id, systemText(error))}});
}

/// How a stream's failure is told: such a row with one of `StreamError` on top.
inline testing::AssertionResult streamFailureIs(int error, int id, int on_top) {
    using vesk::SysError;
    return chainIs(
        {{SysError, id, rowText(SysError, id, systemText(error))},
         {std::IBinStreamBase::StreamError, on_top}});
}

inline bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// Reads once, and gives what came.
inline std::string readFrom(std::IBinInputStream& stream, unsigned int size, int expected = 1) {
    std::string block(size, '\0');
    unsigned int count = 12345;
    EXPECT_EQ(expected, stream.read(&block[0], size, count));
    EXPECT_LE(count, size);
    return block.substr(0, count);
}

/// Writes all of it.
inline void writeTo(std::IBinOutputStream& stream, std::string const& bytes) {
    unsigned int written = 12345;
    EXPECT_EQ(1, stream.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written));
    EXPECT_EQ(bytes.size(), written);
}

/// For a child: every write beyond `size` bytes of a file fails, instead of ending the process.
inline void limitFileSize(rlim_t size) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit const limit{size, size};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

/// For a child: gives up the rights of root.
inline void becomeNobody() {
    if (geteuid() == 0) {
        ASSERT_EQ(0, setgroups(0, nullptr));
        ASSERT_EQ(0, setresgid(65534, 65534, 65534));
        ASSERT_EQ(0, setresuid(65534, 65534, 65534));
    }
}

} // namespace support
