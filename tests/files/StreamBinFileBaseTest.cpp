#include "StreamFiles.h"

namespace {

using namespace support;

static_assert(
    StreamBinFileBase::Current == 0 && StreamBinFileBase::Begin == 1 && StreamBinFileBase::End == 2);

class PlainFile : public StreamBinFileBase {};

static_assert(sizeof(PlainFile) == sizeof(BinFileBase), "it adds no data");

/// The base class alone.
StreamClass const PLAIN{
    "StreamBinFileBase",
    3,
    [](unsigned int) -> std::unique_ptr<StreamBinFileBase> { return std::make_unique<PlainFile>(); },
    [](auto& file, char const* path, unsigned int flags, FileAccess const& access) {
        return file.open(path, BinFileBase::OpenFlags(flags), access);
    },
    nullptr,
    nullptr};

TEST(StreamBinFileBase, operationsAreInTheirSlots) {
    EXPECT_EQ(0, getSlot(&StreamBinFileBase::isValid));
    EXPECT_EQ(1, getSlot(&StreamBinFileBase::close));
    EXPECT_EQ(4, getSlot(&StreamBinFileBase::seek));

    EXPECT_EQ(2, getSlot(&StreamBinFileR::isValid));
    EXPECT_EQ(3, getSlot(&Reading::checkReadBufferConsistency));
    EXPECT_EQ(4, getSlot(&Reading::performRead));
    EXPECT_EQ(5, getSlot(&StreamBinFileR::seek));

    EXPECT_EQ(2, getSlot(&StreamBinFileW::isValid));
    EXPECT_EQ(3, getSlot(&Writing::checkWriteBufferConsistency));
    EXPECT_EQ(4, getSlot(&Writing::performWrite));
    EXPECT_EQ(5, getSlot(&Writing::performFlush));
    EXPECT_EQ(6, getSlot(&StreamBinFileW::close));
    EXPECT_EQ(7, getSlot(&StreamBinFileW::seek));
}

class StreamSeek : public StreamSuite<StreamBinFileBase> {};

TEST_P(StreamSeek, countsFromTheBeginningTheCurrentPositionOrTheEnd) {
    run(0,
        {"open file", "seek begin 4 4", "seek current 3 7", "seek current -2 5", "seek end -1 15",
         "seek end 5 21"});
}

TEST_P(StreamSeek, failsOnAClosedObject) {
    StreamBinFileBase& file = run(0, {"open file", "close"});
    Calls const none(inject_lseek, 0);
    EXPECT_TRUE(file.seek(0, file.Begin, m_position));
    EXPECT_TRUE(isContractBroken("Attempt to seek on invalid file object"));
    EXPECT_TRUE(file.hadError());
    EXPECT_EQ(0U, m_position);
}

TEST_P(StreamSeek, failsWhereTheSystemRefuses) {
    // Before the beginning. The position is kept.
    StreamBinFileBase& file =
        run(0,
            {"open file", "seek begin 5 5", "seek current -6 FAILS INVALID_PARAMETER EINVAL",
             "seek begin -2147483648 FAILS INVALID_PARAMETER EINVAL", "seek current 0 5"});
    Pipe pipe;
    EXPECT_FALSE(file.open(pipe, false));
    runOn(
        file,
        {"seek current 0 FAILS SPOILED_INTEGRITY ESPIPE", "valid", "lose",
         "seek begin 0 FAILS SPOILED_INTEGRITY EBADF"});
    EXPECT_TRUE(file.close());
    std::ErrorStorage::ack();
}

TEST_P(StreamSeek, beyondTwoGibibytesFailsInEveryBuild) {
    run(0,
        {"open file", "seek begin 2147483647 2147483647",
         "seek current 1 0 FAILS SPOILED_INTEGRITY EOVERFLOW",
         "seek end 2147483647 FAILS SPOILED_INTEGRITY EOVERFLOW", "seek begin 0 0"});
}

TEST_P(StreamSeek, inAFileBeyondTwoGibibytesFailsAtTheLatestWhenItsPositionIsRequested) {
    if (truncate64(m_path.c_str(), 3LL << 30) != 0) {
        GTEST_SKIP() << "the file system has no large files";
    }
    StreamBinFileBase& file = make();
    bool const failed = reopen(file, m_path);
    if (sizeof(off_t) == 4 && failed) {
        ErrnoCase const too_large = {EOVERFLOW, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED};
        EXPECT_TRUE(too_large.isPending(m_path));
        return;
    }
    // A 64-bit system opens it, also for a 32-bit program that it emulates.
    EXPECT_FALSE(failed);
    EXPECT_TRUE(file.seek(0, file.End, m_position));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EOVERFLOW));
    EXPECT_EQ(0U, m_position);
}

TEST_P(StreamSeek, inAnUnknownDirectionEndsTheProcessOrCountsFromTheCurrentPosition) {
    StreamBinFileBase& file = run(0, {"open file", "seek begin 4 4"});
    std::string const text = "BinFileBase::seek(): Invalid value for direction";
    EXPECT_TRUE(abortsWith(
        text, [&] { file.seek(0, static_cast<StreamBinFileBase::SeekDirection>(3), m_position); }));
    EventRecorder const events;
    EXPECT_FALSE(file.seek(2, static_cast<StreamBinFileBase::SeekDirection>(-1), m_position));
    EXPECT_EQ(6U, m_position);
    EXPECT_EQ("ABORT framework/src/vesk/posix/StreamBinFileBase seek: " + text, events.getText());
}

INSTANTIATE_TEST_SUITE_P(classes, StreamSeek, testing::Values(PLAIN, READER, WRITER, BOTH), nameOf);

/// An operation, and the system call that it makes.
struct Operation {
    std::string name;
    Injected* call;
    bool (*fails)(StreamBinFileBase& file);
};

void PrintTo(Operation const& operation, std::ostream* out) {
    *out << operation.name;
}

Operation const READ{"read", &inject_read, [](auto& file) {
                         char byte = 0;
                         unsigned int count = 12345;
                         int const result = dynamic_cast<IBinInputStream&>(file).read(&byte, 1, count);
                         EXPECT_EQ(result == 1 ? 1U : 0U, count);
                         return result != 1;
                     }};
Operation const WRITE{"write", &inject_write, [](auto& file) {
                          unsigned int count = 12345;
                          int const result = dynamic_cast<IBinOutputStream&>(file).write("abc", 3, count);
                          EXPECT_EQ(result == 1 ? 3U : 0U, count);
                          return result != 1;
                      }};
Operation const FLUSH{
    "flush", &inject_fsync, [](auto& file) { return dynamic_cast<IBinOutputStream&>(file).flush(false); }};
Operation const SEEK{"seek", &inject_lseek, [](auto& file) {
                         unsigned int position = 12345;
                         bool const result = file.seek(0, file.Begin, position);
                         EXPECT_EQ(0U, position);
                         return result;
                     }};

using OperationParam = std::tuple<StreamClass, Operation>;

class StreamOperation : public StreamTest<StreamBinFileBase>,
                        public testing::WithParamInterface<OperationParam> {
protected:
    StreamOperation() : StreamTest(std::get<0>(GetParam())) {}

    Operation m_operation = std::get<1>(GetParam());
};

TEST_P(StreamOperation, onAClosedObjectFailsWithoutASystemCall) {
    Calls const none(*m_operation.call, 0);
    for (unsigned int const buffer_size : {0U, 16U}) {
        StreamBinFileBase& file = make(buffer_size);
        EXPECT_TRUE(m_operation.fails(file));
        EXPECT_TRUE(hasFailed(file, closedFor(m_operation.name)));
    }
}

TEST_P(StreamOperation, isRepeatedWhileSignalsInterruptIt) {
    StreamBinFileBase& file = open();
    Fault const fault(*m_operation.call, EINTR, 1, 3);
    EXPECT_FALSE(m_operation.fails(file));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(hasNoError(file));
    EXPECT_EQ(m_operation.name == "write" ? "abc3456789abcdef" : "0123456789abcdef", contentOf(m_path));
}

TEST_P(StreamOperation, isOneSystemCallWithoutAnAllocation) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    StreamBinFileBase& file = open(0, "/dev/zero");
    StreamBinFileBase& closed = make();
    Calls const calls(*m_operation.call, 10);
    AllocationCounter const counter;
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(m_operation.fails(file));
    }
    EXPECT_TRUE(m_operation.fails(closed));
    std::ErrorStorage::ack();
    EXPECT_EQ(0, counter.getCount());
}

INSTANTIATE_TEST_SUITE_P(
    reading, StreamOperation, testing::Combine(testing::Values(READER, BOTH), testing::Values(READ)));
INSTANTIATE_TEST_SUITE_P(
    writing, StreamOperation, testing::Combine(testing::Values(WRITER, BOTH), testing::Values(WRITE, FLUSH)));

/// Error numbers with the same reports.
struct StreamRow {
    std::vector<int> errors;
    SysErrorId::Id cause;
    std::optional<StreamErrorId> on_top = {};
    int error = 0;
};

void PrintTo(StreamRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

using OperationRow = std::tuple<StreamClass, Operation, StreamRow>;

class StreamRows : public StreamTest<StreamBinFileBase>, public testing::WithParamInterface<OperationRow> {
protected:
    StreamRows() : StreamTest(std::get<0>(GetParam())) {}
};

TEST_P(StreamRows, failureReportsItsCauseAndTheMeaningForTheStream) {
    auto const& [tested, operation, row] = GetParam();
    for (unsigned int const buffer_size : {0U, 2U}) {
        StreamBinFileBase& file = open(buffer_size, "/dev/zero");
        Calls const calls(*operation.call, 2, row.error);
        EXPECT_TRUE(operation.fails(file));
        EXPECT_TRUE(hasFailed(file, row.cause, row.error, row.on_top));
        EXPECT_TRUE(file.isValid());
        EXPECT_FALSE(operation.fails(file));
        EXPECT_FALSE(file.hadError());
    }
}

auto rowsOf(
    std::vector<StreamClass> const& classes, Operation const& operation,
    std::initializer_list<StreamRow> rows) {
    return testing::Combine(
        testing::ValuesIn(classes), testing::Values(operation), testing::ValuesIn(eachErrno(rows)));
}

INSTANTIATE_TEST_SUITE_P(
    seek, StreamRows,
    rowsOf(
        {PLAIN, READER, WRITER, BOTH}, SEEK,
        {
            {{EBADF, ESPIPE, EOVERFLOW}, SysErrorId::SPOILED_INTEGRITY},
            {{EINVAL}, SysErrorId::INVALID_PARAMETER},
            {{ENXIO, EINTR, EIO}, SysErrorId::UNCLASSIFIED},
        }));

INSTANTIATE_TEST_SUITE_P(
    read, StreamRows,
    rowsOf(
        {READER, BOTH}, READ,
        {
            {{EIO}, SysErrorId::INPUT_OUTPUT, StreamErrorId::TRANSFER_FAILED},
            {{ENXIO}, SysErrorId::NO_DEVICE, StreamErrorId::UNUSABLE},
            {{EBADF, EINVAL, ECONNRESET, ENOTCONN, ETIMEDOUT},
             SysErrorId::SPOILED_INTEGRITY,
             StreamErrorId::UNUSABLE},
            {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, StreamErrorId::TRANSFER_FAILED},
            {{EISDIR}, SysErrorId::INVALID_PATH, StreamErrorId::TRANSFER_FAILED},
            {{EOVERFLOW}, SysErrorId::INVALID_PARAMETER, StreamErrorId::TRANSFER_FAILED},
            {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED, StreamErrorId::TRANSFER_FAILED},
            {{EFAULT, ENOSPC, EPIPE}, SysErrorId::UNCLASSIFIED, StreamErrorId::UNCLASSIFIED},
        }));

INSTANTIATE_TEST_SUITE_P(
    write, StreamRows,
    rowsOf(
        {WRITER, BOTH}, WRITE,
        {
            {{EIO}, SysErrorId::INPUT_OUTPUT, StreamErrorId::TRANSFER_FAILED},
            {{ENXIO}, SysErrorId::NO_DEVICE, StreamErrorId::UNUSABLE},
            {{EBADF, EINVAL, EPIPE, ERANGE, ENETDOWN, ENETUNREACH, ECONNRESET},
             SysErrorId::SPOILED_INTEGRITY,
             StreamErrorId::UNUSABLE},
            {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, StreamErrorId::TRANSFER_FAILED},
            {{EACCES}, SysErrorId::PERMISSION_DENIED, StreamErrorId::TRANSFER_FAILED},
            {{EFBIG}, SysErrorId::INVALID_PARAMETER, StreamErrorId::TRANSFER_FAILED},
            {{ENOSPC}, SysErrorId::NO_SPACE, StreamErrorId::TRANSFER_FAILED},
            {{ENOBUFS}, SysErrorId::RESOURCES_EXHAUSTED, StreamErrorId::TRANSFER_FAILED},
            {{EFAULT, EDQUOT, EPERM}, SysErrorId::UNCLASSIFIED, StreamErrorId::TRANSFER_FAILED},
        }));

INSTANTIATE_TEST_SUITE_P(
    flush, StreamRows,
    rowsOf(
        {WRITER, BOTH}, FLUSH,
        {
            {{EIO}, SysErrorId::INPUT_OUTPUT, StreamErrorId::TRANSFER_FAILED},
            {{EBADF}, SysErrorId::SPOILED_INTEGRITY, StreamErrorId::UNUSABLE},
            {{ENOSPC, EDQUOT, EROFS}, SysErrorId::UNCLASSIFIED, StreamErrorId::UNCLASSIFIED},
        }));

class StreamFile : public StreamSuite<StreamBinFileBase> {
protected:
    /// Transfers something in each direction of the class.
    void use(StreamBinFileBase& file) {
        if (m_class.isReader()) {
            EXPECT_EQ("0123", readFrom(dynamic_cast<IBinInputStream&>(file), 4));
        }
        if (m_class.isWriter()) {
            writeTo(dynamic_cast<IBinOutputStream&>(file), "X");
            m_content += "X";
        }
        EXPECT_FALSE(file.close());
        EXPECT_EQ(m_content, contentOf(m_path));
    }

    /// Opens a file of the folder by its path, by a text, and by its name in the folder. Calls `check` after each.
    void openInEachWay(
        StreamBinFileBase& file, std::string const& name, unsigned int flags,
        std::function<void(bool failed, std::string const& shown)> const& check) {
        std::string const path = m_folder / name;
        check(m_class.open(file, path.c_str(), flags, FileAccess::none), path);
        check(m_class.open_text(file, path, flags), path); // The string is borrowed.
        check(m_class.open_text(file, vesk::UnicodeString(path.c_str()), flags), path);
        check(m_class.open_at(file, m_dir, name.c_str(), flags), name);
    }

    unsigned int m_buffers = GetParam().direction == 3 ? 2 : 1;
    std::string m_content = "0123456789abcdef";
};

TEST_P(StreamFile, startsClosedBlockingAndUnbuffered) {
    for (unsigned int const buffer_size : {0U, 16U}) {
        StreamBinFileBase& file = make(buffer_size);
        EXPECT_FALSE(file.isValid());
        EXPECT_TRUE(Reading::getBlocking(dynamic_cast<IBinStreamBase&>(file)));
        if (m_class.isReader()) {
            EXPECT_EQ(buffer_size != 0, dynamic_cast<IBinInputStream&>(file).isInputBuffered());
        }
        if (m_class.isWriter()) {
            EXPECT_EQ(buffer_size != 0, dynamic_cast<IBinOutputStream&>(file).isOutputBuffered());
        }
    }
}

TEST_P(StreamFile, opensAPathInEachForm) {
    StreamBinFileBase& file = make();
    unsigned int const flags = m_class.direction | BinFileBase::APPEND;
    openInEachWay(file, "file", flags, [&](bool failed, std::string const&) {
        EXPECT_FALSE(failed);
        EXPECT_EQ(flags, Reading::getFlags(file));
        use(file);
    });
}

TEST_P(StreamFile, failedOpenIsReportedAsInTheBase) {
    StreamBinFileBase& file = make();
    for (bool const exists : {false, true}) {
        unsigned int const create_new = m_class.direction | 0x48U;
        openInEachWay(
            file, exists ? "file" : "missing", exists ? create_new : m_class.direction,
            [&](bool failed, std::string const& shown) {
                EXPECT_TRUE(failed);
                EXPECT_TRUE(exists ? FILE_EXISTS.isPending(shown) : isMissing(shown));
                EXPECT_FALSE(file.isValid());
            });
    }
}

TEST_P(StreamFile, keepsTheOldFileIfThatCannotBeClosed) {
    StreamBinFileBase& file = open(0, m_path);
    int const old = file.getDescriptor();
    Fault const fault(inject_close, EIO);
    EXPECT_TRUE(reopen(file, m_path.c_str()));
    EXPECT_TRUE(causeIs(SysErrorId::INPUT_OUTPUT, EIO));
    EXPECT_EQ(old, file.getDescriptor());
}

TEST_P(StreamFile, openWithoutAPathSucceedsAndStaysClosed) {
    StreamBinFileBase& file = make();
    EXPECT_FALSE(m_class.open(file, nullptr, m_class.direction, FileAccess::none));
    EXPECT_FALSE(file.isValid());
    EXPECT_FALSE(reopen(file, ""));
    EXPECT_FALSE(file.isValid());
    EXPECT_FALSE(m_class.open_text(file, std::string(), m_class.direction));
    EXPECT_FALSE(file.isValid());
}

TEST_P(StreamFile, createdFileIsForOwnerAndGroupUnlessRequestedOtherwise) {
    ScopedUmask const mask(0);
    StreamBinFileBase& file = make();
    unsigned int const flags = m_class.direction | BinFileBase::CREATE;
    EXPECT_FALSE(m_class.open_text(file, m_folder / "new", flags));
    EXPECT_EQ(0660U, file.getFileInfo().getAccess().getBits());
    EXPECT_FALSE(m_class.open(file, (m_folder / "secret").c_str(), flags, FileAccess::owner_write));
    EXPECT_EQ(0200U, file.getFileInfo().getAccess().getBits());
}

TEST_P(StreamFile, cannotBeOpenedWithoutMemoryForABuffer) {
    for (unsigned int nth = 1; nth <= m_buffers; ++nth) {
        NewFault const fault(New::NOTHROW_ARRAY, static_cast<int>(nth));
        StreamBinFileBase& file = make(16);
        EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
        Calls const no_open(inject_open, 0);
        Calls const no_openat(inject_openat, 0);
        unsigned int const flags = m_class.direction | BinFileBase::TRUNCATE;
        openInEachWay(file, "file", flags, [&](bool failed, std::string const&) {
            EXPECT_TRUE(failed);
            EXPECT_TRUE(isContractBroken("Attempted open on invalid object"));
            EXPECT_TRUE(file.hadError());
        });
        EXPECT_FALSE(file.isValid());
    }
    EXPECT_EQ(m_content, contentOf(m_path));
}

TEST_P(StreamFile, withoutABufferAnOpenFileIsNotValidAndOnlyClosedByItsDestructor) {
    for (unsigned int nth = 1; nth <= m_buffers; ++nth) {
        NewFault const fault(New::NOTHROW_ARRAY, static_cast<int>(nth));
        EventRecorder const events;
        StreamBinFileBase& file = make(16);
        EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
        EXPECT_FALSE(file.open(m_path.c_str(), BinFileBase::READ_WRITE, FileAccess::none));
        EXPECT_FALSE(file.isValid());
        EXPECT_NE(-1, file.getDescriptor());
        Fault const syncs(inject_fsync, 0);
        m_files.clear();
        // With its write buffer, the class tries to flush, which fails because the object is not valid.
        bool const flushes = m_buffers == 2 && nth == 1;
        EXPECT_EQ(flushes ? 1 : 0, syncs.getCalls()) << "by the base class";
        EXPECT_EQ(
            flushes
                ? "WARNING framework/src/vesk/posix/StreamBinFileRW ~StreamBinFileRW: Error closing BinFileW"
                : "",
            events.getText());
    }
}

TEST_P(StreamFile, flagsDecideWhetherItBlocks) {
    StreamBinFileBase& file = open(0, m_path, BinFileBase::NON_BLOCK);
    auto& stream = dynamic_cast<IBinStreamBase&>(file);
    EXPECT_FALSE(Reading::getBlocking(stream));
    EXPECT_FALSE(reopen(file, m_path));
    EXPECT_TRUE(Reading::getBlocking(stream));
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(m_class.open_at(file, m_dir, "file", m_class.direction | BinFileBase::NON_BLOCK));
    EXPECT_FALSE(Reading::getBlocking(stream));
}

/// Deletes a file through its base `Base`, if it has that base.
template <typename Base>
void deleteAs(StreamBinFileBase* file) {
    if (auto* const base = dynamic_cast<Base*>(file)) {
        delete base;
    } else {
        delete file;
    }
}

TEST_P(StreamFile, destructorFlushesAndClosesThroughEveryBase) {
    for (auto const destroy :
         {deleteAs<StreamBinFileRW>, deleteAs<StreamBinFileR>, deleteAs<StreamBinFileW>,
          deleteAs<IBinInputStream>, deleteAs<IBinOutputStream>, deleteAs<IBinStreamBase>,
          deleteAs<StreamBinFileBase>, deleteAs<BinFileBase>}) {
        std::string const path = m_folder.makeFile("other");
        StreamBinFileBase& file = open(16, path);
        if (m_class.isWriter()) {
            writeTo(dynamic_cast<IBinOutputStream&>(file), "abc");
        }
        Calls const syncs(inject_fsync, m_class.isWriter() ? 1 : 0);
        destroy(m_files.back().release());
        EXPECT_EQ(m_class.isWriter() ? "abc" : "", contentOf(path));
    }
    make(16);
    m_files.clear();
}

INSTANTIATE_TEST_SUITE_P(classes, StreamFile, testing::Values(READER, WRITER, BOTH), nameOf);

} // namespace
