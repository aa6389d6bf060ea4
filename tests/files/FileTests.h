#pragma once

#include "support/Aborts.h"
#include "support/Calls.h"
#include "support/CleanEnd.h"
#include "support/TempFolder.h"
#include "support/Testing.h"
#include "support/VtableSlot.h"
#include "support/calls/FileCalls.h"

#include <tarncommon/stream/IBinInputStream.h>
#include <tarncommon/stream/IBinOutputStream.h>
#include <vesk/BinFileBase.h>
#include <vesk/Directory.h>
#include <vesk/Pipe.h>

/// What the tests of files share. Must be included in exactly one file of a test program, like `FileCalls.h`.

namespace support {

namespace CommonErrorId = std::CommonErrorId;
using StreamErrorId = std::IBinStreamBase::StreamErrorId;
using std::IBinInputStream;
using std::IBinOutputStream;
using std::IBinStreamBase;
using vesk::BinFileBase;
using vesk::Directory;
using vesk::FileAccess;
using vesk::Pipe;

// ---- reports ----

inline ExpectedReport causedBy(SysErrorId::Id cause, int error) {
    return {cause, rowText(cause, systemText(error))};
}

/// Checks that the last operation of a file failed, and its reports.
inline testing::AssertionResult
hasFailed(BinFileBase const& file, std::vector<ExpectedReport> const& reports) {
    testing::AssertionResult const result = chainIs(reports);
    return file.hadError() ? result : testing::AssertionFailure() << "hadError() returns false";
}

/// Checks that the last operation of a file succeeded, and that no report is pending.
inline testing::AssertionResult hasNoError(BinFileBase const& file) {
    testing::AssertionResult const result = chainIs({});
    return file.hadError() ? testing::AssertionFailure() << "hadError() returns true" : result;
}

/// Reports of a failed operation: the cause with the system's text, and possibly one of the stream on top.
inline std::vector<ExpectedReport>
failure(SysErrorId::Id cause, int error, std::optional<StreamErrorId> on_top = {}) {
    std::vector<ExpectedReport> reports{causedBy(cause, error)};
    if (on_top) {
        reports.emplace_back(*on_top);
    }
    return reports;
}

/// Reports of an `attempt` ("read", "write", "flush") on a closed file.
inline std::vector<ExpectedReport> closedFor(std::string const& attempt) {
    std::string const text = "attempted " + attempt + " on invalid file object";
    return {
        {CommonErrorId::CONTRACT_BROKEN, rowText(CommonErrorId::CONTRACT_BROKEN, text)},
        {StreamErrorId::UNUSABLE}};
}

inline std::vector<ExpectedReport> const FULL_DISK =
    failure(SysErrorId::NO_SPACE, ENOSPC, StreamErrorId::TRANSFER_FAILED);
inline std::vector<ExpectedReport> const AT_END = {StreamErrorId::END_OF_STREAM};

inline testing::AssertionResult hasFailed(
    BinFileBase const& file, SysErrorId::Id cause, int error, std::optional<StreamErrorId> on_top = {}) {
    return hasFailed(file, failure(cause, error, on_top));
}

inline testing::AssertionResult isMissing(std::string const& path) {
    return badPath(ENOENT).isPending(path);
}

inline bool isZeroed(vesk::FileInfo const& info) {
    struct stat const zeros{};
    return memcmp(&zeros, &info.getStat(), sizeof zeros) == 0;
}

/// Reports of an `open` of a path without descriptors left.
inline ErrnoCase const EXHAUSTED = {
    EMFILE, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR};

/// Reports of an `open` of a path that must be new.
inline ErrnoCase const FILE_EXISTS = {EEXIST, SysErrorId::IN_USE, FileAccessErrorId::ALREADY_EXISTS};

// ---- files ----

inline bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// Reads once. Returns what was read.
inline std::string readFrom(IBinInputStream& stream, unsigned int size, int expected = 1) {
    std::string block(size, '\0');
    unsigned int count = 12345;
    EXPECT_EQ(expected, stream.read(&block[0], size, count));
    EXPECT_LE(count, size);
    return block.substr(0, count);
}

/// Writes once. Returns the result of the write, which must have accepted `expected_count` bytes.
inline int writeOnce(IBinOutputStream& stream, std::string const& bytes, size_t expected_count) {
    unsigned int written = 12345;
    int const result = stream.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written);
    EXPECT_EQ(expected_count, written);
    return result;
}

/// Writes all bytes.
inline void writeTo(IBinOutputStream& stream, std::string const& bytes) {
    EXPECT_EQ(1, writeOnce(stream, bytes, bytes.size()));
}

/// Passes bytes into a pipe, past the file under test.
inline void fill(Pipe const& pipe, std::string const& bytes) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(pipe.getWriteEnd(), bytes.data(), bytes.size()));
}

/// Returns what a pipe contains.
inline std::string drain(Pipe const& pipe) {
    char block[64];
    ssize_t const count = read(pipe.getReadEnd(), block, sizeof block);
    return {block, static_cast<size_t>(count < 0 ? 0 : count)};
}

/// The umask of the process during the lifetime of the object.
class ScopedUmask : tarnbase::NonCopyable {
public:
    explicit ScopedUmask(mode_t mask) : m_previous(umask(mask)) {}
    ~ScopedUmask() { umask(m_previous); }

private:
    mode_t m_previous;
};

/// For a child: every write beyond `size` bytes of a file fails, instead of ending the process.
inline void limitFileSize(rlim_t size) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit const limit{size, size};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

/// Runs `body` in a child with a file system of its own at `mount_point`. Returns false if that is denied.
inline bool
runWithMount(std::string const& mount_point, char const* options, std::function<void()> const& body) {
    constexpr int NO_RIGHT = 77;
    ChildEnd const end = runInChild([&] {
        if (!separateMounts() || !mountMemory(mount_point, options)) {
            _exit(NO_RIGHT);
        }
        body();
    });
    EXPECT_TRUE(end.exit_code == 0 || end.exit_code == NO_RIGHT) << end.output << end.errors;
    return end.exit_code != NO_RIGHT;
}

/// A file that shows its flags.
class FlaggedFile : public BinFileBase {
public:
    uint32_t getFlags() const { return m_flags.getWord(); }
};

/// A file in a folder of its own.
class FileTest : public testing::Test {
protected:
    explicit FileTest(std::string const& content = "0123456789abcdef")
        : m_path(m_folder.makeFile("file", content)), m_dir(m_folder.getPath(), true) {}
    ~FileTest() override { s_file_calls = {}; }

    TempFolder m_folder;
    std::string m_path;
    Directory m_dir;
    std::string m_missing = m_folder / "missing";
    unsigned int m_position = 12345;
};

} // namespace support
