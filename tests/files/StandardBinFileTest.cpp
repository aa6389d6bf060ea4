#include "StreamFiles.h"

#include <vesk/FmtFileWrapper.h>
#include <vesk/StderrBinFile.h>
#include <vesk/StdinBinFile.h>
#include <vesk/StdoutBinFile.h>

#include <istream>

namespace {

using namespace support;
using vesk::StderrBinFile;
using vesk::StdinBinFile;
using vesk::StdoutBinFile;

template <typename File>
constexpr int DESCRIPTOR = std::is_same_v<File, StdinBinFile> ? STDIN_FILENO
    : std::is_same_v<File, StdoutBinFile>                     ? STDOUT_FILENO
                                                              : STDERR_FILENO;

struct Names {
    template <typename File>
    static std::string GetName(int) {
        char const* const names[] = {"StdinBinFile", "StdoutBinFile", "StderrBinFile"};
        return names[DESCRIPTOR<File>];
    }
};

int transfer(IBinInputStream& stream, unsigned int& count) {
    char byte = 0;
    return stream.read(&byte, 1, count);
}

int transfer(IBinOutputStream& stream, unsigned int& count) {
    return stream.write("x", 1, count);
}

template <typename File>
class StandardChannel : public FileTest {
protected:
    void SetUp() override { ASSERT_TRUE(isOpen(DESCRIPTOR<File>)); }
    void TearDown() override { EXPECT_TRUE(isOpen(DESCRIPTOR<File>)); }
};

using Channels = testing::Types<StdinBinFile, StdoutBinFile, StderrBinFile>;
TYPED_TEST_SUITE(StandardChannel, Channels, Names);

TYPED_TEST(StandardChannel, closeOnlyEndsTheUseOfTheDescriptorByTheObject) {
    Calls const no_syncs(inject_fsync, 0);
    TypeParam file;
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.isValid());
    unsigned int count = 12345;
    EXPECT_EQ(-1, transfer(file, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}, {StreamErrorId::UNUSABLE}}));
    EXPECT_FALSE(file.close());
}

TYPED_TEST(StandardChannel, destructorLeavesTheDescriptorOpenThroughEveryBase) {
    Calls const no_syncs(inject_fsync, 0);
    { TypeParam const file; }
    EXPECT_TRUE(isOpen(DESCRIPTOR<TypeParam>));
    BinFileBase* const file = new TypeParam;
    delete file;
    EXPECT_TRUE(isOpen(DESCRIPTOR<TypeParam>));
    IBinStreamBase* const stream = new TypeParam;
    delete stream;
}

TYPED_TEST(StandardChannel, closesAFileThatIsOpenedThroughIt) {
    constexpr bool IS_INPUT = std::is_same_v<TypeParam, StdinBinFile>;
    std::conditional_t<IS_INPUT, BinFileBase::ReadFlags, BinFileBase::WriteFlags> const flags;
    int fd = -1;
    {
        TypeParam file;
        EXPECT_FALSE(file.open(this->m_path, flags));
        fd = file.getDescriptor();
        EXPECT_LT(STDERR_FILENO, fd);
        EXPECT_FALSE(file.close());
        EXPECT_FALSE(file.isValid());
        EXPECT_FALSE(isOpen(fd));
        EXPECT_FALSE(file.open(this->m_path, flags));
        EXPECT_FALSE(file.open(this->m_path, flags));
        EXPECT_EQ(fd, file.getDescriptor()) << "the one before is closed";
        unsigned int count = 0;
        EXPECT_EQ(1, transfer(file, count));
    }
    EXPECT_FALSE(isOpen(fd)) << "by the destructor";
    EXPECT_EQ(IS_INPUT ? "0123456789abcdef" : "x123456789abcdef", contentOf(this->m_path));
}

static_assert(std::is_base_of_v<vesk::StreamBinFileR, StdinBinFile>);

TEST(StdinBinFile, readsStandardInputWithoutABuffer) {
    expectInChild([] {
        Pipe pipe;
        fill(pipe, "abc");
        ASSERT_EQ(0, dup2(pipe.getReadEnd(), STDIN_FILENO));
        StdinBinFile input(4096);
        EXPECT_TRUE(input.isValid());
        EXPECT_EQ(STDIN_FILENO, input.getDescriptor());
        EXPECT_EQ(1U, Reading::getFlags(input));
        EXPECT_FALSE(input.isInputBuffered());
        EXPECT_TRUE(Reading::getBlocking(input));
        EXPECT_EQ("a", readFrom(input, 1));
        EXPECT_EQ("bc", drain(pipe)) << "nothing is read ahead";
        EXPECT_FALSE(pipe.closeWriteEnd());
        EXPECT_EQ("", readFrom(input, 1, 0));
        EXPECT_TRUE(chainIs({{StreamErrorId::END_OF_STREAM}}));
    });
    EXPECT_EQ(5, getSlot(&StdinBinFile::seek));
    EXPECT_EQ(6, getSlot(&StdinBinFile::close));
}

TEST(StdinBinFile, doesNotCloseAFileWithTheNumberOfAStandardChannel) {
    expectInChild([] {
        close(STDIN_FILENO);
        {
            StdinBinFile input;
            EXPECT_FALSE(input.open("/dev/zero", input.READ));
            EXPECT_EQ(STDIN_FILENO, input.getDescriptor()) << "the lowest free number";
            using Numbers = vesk::FmtFileWrapper<StdinBinFile, std::istream, BinFileBase::ReadFlags>;
            close(STDIN_FILENO);
            Numbers const numbers("/dev/zero", BinFileBase::READ);
        }
        EXPECT_TRUE(isOpen(STDIN_FILENO)) << "is now the standard input of the process";
    });
}

TEST(StdinBinFile, isValidWhereTheProcessHasNoStandardInput) {
    auto const end = runInChild([] {
        close(STDIN_FILENO);
        StdinBinFile input;
        EXPECT_TRUE(input.isValid());
        EXPECT_EQ("", readFrom(input, 1, -1));
        EXPECT_TRUE(hasFailed(input, SysErrorId::SPOILED_INTEGRITY, EBADF, StreamErrorId::UNUSABLE));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ("", end.errors);
}

template <typename File>
class StandardBinFile : public FileTest {
    static_assert(std::is_base_of_v<vesk::StreamBinFileW, File>);
};

using OutputChannels = testing::Types<StderrBinFile, StdoutBinFile>;
TYPED_TEST_SUITE(StandardBinFile, OutputChannels, Names);

TYPED_TEST(StandardBinFile, writesToItsDescriptorWithoutABuffer) {
    auto const end = runInChild([] {
        TypeParam output(4096);
        EXPECT_TRUE(output.isValid());
        EXPECT_EQ(DESCRIPTOR<TypeParam>, output.getDescriptor());
        EXPECT_EQ(2U, Reading::getFlags(output));
        EXPECT_FALSE(output.isOutputBuffered());
        EXPECT_TRUE(Reading::getBlocking(output));
        writeTo(output, "abc");
        // Without the destructor, which has nothing left to write.
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    bool const is_error = DESCRIPTOR<TypeParam> == STDERR_FILENO;
    EXPECT_EQ(is_error ? "abc" : "", end.errors);
    EXPECT_EQ(is_error ? "" : "abc", end.output);
}

TYPED_TEST(StandardBinFile, flushOfAPipeSucceedsAndCloseHasItsSlot) {
    expectInChild([] {
        TypeParam output;
        Calls const syncs(inject_fsync, 1);
        writeTo(output, "abc");
        EXPECT_FALSE(output.flush(false));
    });
    EXPECT_EQ(6, getSlot(&TypeParam::close));
    EXPECT_EQ(7, getSlot(&TypeParam::seek));
}

TYPED_TEST(StandardBinFile, failureToCloseAFileThatIsOpenedThroughItIsReported) {
    TypeParam output;
    EXPECT_FALSE(output.open(this->m_path, output.WRITE));
    Fault const fault(inject_fsync, EIO);
    EXPECT_TRUE(output.close());
    EXPECT_TRUE(hasFailed(output, SysErrorId::INPUT_OUTPUT, EIO, StreamErrorId::TRANSFER_FAILED));
    EXPECT_FALSE(output.close());
    EXPECT_FALSE(output.hadError());
}

} // namespace
