#pragma once

#include "support/Chain.h"
#include "support/Inject.h"
#include "support/calls/MapCalls.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

/// The system calls below shared memory, replaced; some tell what they were called with. Include it in one file of a test
/// program.

namespace support {

struct ShmCalls {
    std::string name;
    int flags = -1;
    mode_t mode = 0;
    long long length = -1; ///< What `ftruncate` was to set.
};

inline ShmCalls s_shm_calls;

} // namespace support

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, fstat, (int fd, struct stat* data), (fd, data))
VESK_INJECT_ERRNO(int, -1, shm_unlink, (char const* name), (name))

support::Injected inject_shm_open("shm_open");
support::Injected inject_ftruncate("ftruncate");

extern "C" {

VESK_UNWATCHED int shm_open(char const* name, int flags, mode_t mode) {
    support::s_shm_calls.name = name;
    support::s_shm_calls.flags = flags;
    support::s_shm_calls.mode = mode;
    int error = 0;
    if (inject_shm_open.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(char const*, int, mode_t)>(inject_shm_open.getReal())(name, flags, mode);
}

VESK_UNWATCHED int ftruncate(int fd, off_t length) {
    support::s_shm_calls.length = length;
    int error = 0;
    if (inject_ftruncate.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int, off_t)>(inject_ftruncate.getReal())(fd, length);
}

} // extern "C"

namespace support {

/// A name of shared memory that no other test has, and that is gone when the object goes.
class ShmName {
public:
    explicit ShmName(std::string const& end = "")
        : m_name("vesk-test-" + std::to_string(getpid()) + "-" + end), m_system_name("/" + m_name) {}
    ~ShmName() {
        if (m_owner == getpid()) {
            shm_unlink(m_system_name.c_str());
        }
    }

    ShmName(ShmName const&) = delete;
    ShmName& operator=(ShmName const&) = delete;

    char const* get() const { return m_name.c_str(); }
    std::string const& getSystemName() const { return m_system_name; }

    /// Whether there is memory of this name.
    bool exists() const { return getSize() != -1; }

    /// How large it is; -1 if there is none.
    long long getSize() const {
        int const fd = openIt(O_RDONLY);
        struct stat data {};
        bool const failed = fd == -1 || fstat(fd, &data) != 0;
        if (fd != -1) {
            close(fd);
        }
        return failed ? -1 : static_cast<long long>(data.st_size);
    }

    /// What it begins with.
    std::string read(size_t size) const {
        std::string content(size, '?');
        int const fd = openIt(O_RDONLY);
        EXPECT_EQ(static_cast<ssize_t>(size), pread(fd, &content[0], size, 0));
        close(fd);
        return content;
    }

    /// Makes it.
    void make(std::string const& content = "") const {
        int const fd = openIt(O_CREAT | O_EXCL | O_RDWR);
        EXPECT_EQ(static_cast<ssize_t>(content.size()), pwrite(fd, content.data(), content.size(), 0));
        close(fd);
    }

private:
    int openIt(int flags) const {
        ShmCalls const noted = s_shm_calls;
        int const fd = shm_open(m_system_name.c_str(), flags, 0600);
        s_shm_calls = noted;
        return fd;
    }

    std::string m_name;
    std::string m_system_name;
    pid_t m_owner = getpid();
};

/// How a failure is told: the one row of `SysError` with the system's text.
inline testing::AssertionResult failureIs(int error, int id) {
    using vesk::SysError;
    return chainIs({{SysError, id, rowText(SysError, id, systemText(error))}});
}

/// The same with a row of `FileAccessError` and the system's name on top.
inline testing::AssertionResult failureIs(int error, int id, int on_top, std::string const& name) {
    using vesk::FileAccessError;
    using vesk::SysError;
    if (error == ENAMETOOLONG) {
        return chainIs(
            {{SysError, id,
              "Given path exceeds system maximum: " + name + " (" + std::to_string(name.size()) +
                  " chars encountered, only max ? chars allowed)"},
             {FileAccessError, on_top, rowText(FileAccessError, on_top, name)}});
    }
    return chainIs(
        {{SysError, id, rowText(SysError, id, systemText(error))},
         {FileAccessError, on_top, rowText(FileAccessError, on_top, name)}});
}

/// How a name that cannot be removed is told.
inline testing::AssertionResult removalFailureIs(int error, std::string const& name) {
    using vesk::FileAccessError;
    using vesk::SysError;
    std::vector<ExpectedReport> reports;
    if (error == EACCES || error == EPERM) {
        reports.emplace_back(
            SysError, vesk::SysErrorId::PERMISSION_DENIED,
            rowText(vesk::SysErrorId::PERMISSION_DENIED, systemText(error)));
        reports.emplace_back(
            FileAccessError, vesk::FileAccessErrorId::ACCESS_DENIED,
            rowText(vesk::FileAccessErrorId::ACCESS_DENIED, name));
    }
    reports.emplace_back(
        SysError, vesk::SysErrorId::UNCLASSIFIED, rowText(vesk::SysErrorId::UNCLASSIFIED, systemText(error)));
    reports.emplace_back(
        FileAccessError, vesk::FileAccessErrorId::UNCLASSIFIED,
        rowText(vesk::FileAccessErrorId::UNCLASSIFIED, name));
    return chainIs(reports);
}

/// A row of the table of `shm_open`; `on_top` is -1 where there is no second report.
struct OpenRow {
    int error;
    int id;
    int on_top = -1;
};

inline void PrintTo(OpenRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

inline testing::AssertionResult failureIs(OpenRow const& row, std::string const& name) {
    return row.on_top == -1 ? failureIs(row.error, row.id) : failureIs(row.error, row.id, row.on_top, name);
}

inline bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

} // namespace support
