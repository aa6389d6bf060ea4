#include "FileTests.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/FmtFileWrapper.h>
#include <vesk/Pipe.h>
#include <vesk/StdinBinFile.h>

#include <gtest/gtest.h>

#include <istream>
#include <type_traits>
#include <unistd.h>

namespace {

using support::chainIs;
using support::getSlot;
using support::isOpen;
using support::readFrom;
using vesk::Pipe;
using vesk::StdinBinFile;

static_assert(std::is_base_of_v<vesk::StreamBinFileR, StdinBinFile>);

/// Shows what only deriving classes see.
class Input : public StdinBinFile {
public:
    using StdinBinFile::StdinBinFile;
    uint32_t getFlags() const { return m_flags.getWord(); }
    bool isBlocking() const { return m_blocking; }
};

TEST(StdinBinFile, closeStandsBehindSeek) {
    EXPECT_EQ(5, getSlot(&StdinBinFile::seek));
    EXPECT_EQ(6, getSlot(&StdinBinFile::close));
}

TEST(StdinBinFile, readsStandardInputWithoutABuffer) {
    auto const end = support::runInChild([] {
        Pipe pipe;
        ASSERT_EQ(3, write(pipe.getWriteEnd(), "abc", 3));
        ASSERT_EQ(0, dup2(pipe.getReadEnd(), STDIN_FILENO));
        Input input(4096);
        EXPECT_TRUE(input.isValid());
        EXPECT_EQ(STDIN_FILENO, input.getDescriptor());
        EXPECT_EQ(1U, input.getFlags());
        EXPECT_FALSE(input.isInputBuffered());
        EXPECT_TRUE(input.isBlocking());
        EXPECT_EQ("a", readFrom(input, 1));
        char rest[4] = {};
        EXPECT_EQ(2, read(STDIN_FILENO, rest, sizeof rest)) << "nothing is read ahead";
        EXPECT_FALSE(pipe.closeWriteEnd());
        EXPECT_EQ("", readFrom(input, 1, 0));
        EXPECT_TRUE(chainIs({{std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST(StdinBinFile, closeEndsOnlyTheObjectsUseOfTheDescriptor) {
    ASSERT_TRUE(isOpen(STDIN_FILENO));
    StdinBinFile input;
    EXPECT_FALSE(input.close());
    EXPECT_FALSE(input.isValid());
    EXPECT_TRUE(isOpen(STDIN_FILENO));
    EXPECT_EQ("", readFrom(input, 1, -1));
    EXPECT_TRUE(
        chainIs({{std::CommonErrorId::CONTRACT_BROKEN}, {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_FALSE(input.close());
}

TEST(StdinBinFile, closesAFileThatIsOpenedThroughItButNoStandardChannel) {
    auto const end = support::runInChild([] {
        int fd = -1;
        {
            StdinBinFile input;
            EXPECT_FALSE(input.open("/dev/zero", input.READ));
            fd = input.getDescriptor();
            EXPECT_LT(STDERR_FILENO, fd);
            EXPECT_FALSE(input.close());
            EXPECT_FALSE(isOpen(fd));
            EXPECT_FALSE(input.open("/dev/zero", input.READ));
        }
        EXPECT_FALSE(isOpen(fd)) << "by the destructor";
        close(STDIN_FILENO);
        {
            StdinBinFile input;
            EXPECT_FALSE(input.open("/dev/zero", input.READ));
            EXPECT_EQ(STDIN_FILENO, input.getDescriptor()) << "the lowest free number";
            using Numbers = vesk::FmtFileWrapper<StdinBinFile, std::istream, vesk::BinFileBase::ReadFlags>;
            close(STDIN_FILENO);
            Numbers const numbers("/dev/zero", vesk::BinFileBase::READ);
        }
        EXPECT_TRUE(isOpen(STDIN_FILENO)) << "is now the process's standard input";
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST(StdinBinFile, destructorLeavesTheDescriptorThroughEveryBase) {
    ASSERT_TRUE(isOpen(STDIN_FILENO));
    { StdinBinFile const input; }
    EXPECT_TRUE(isOpen(STDIN_FILENO));
    vesk::BinFileBase* const file = new StdinBinFile;
    delete file;
    EXPECT_TRUE(isOpen(STDIN_FILENO));
    std::IBinInputStream* const stream = new StdinBinFile;
    delete stream;
    EXPECT_TRUE(isOpen(STDIN_FILENO));
}

TEST(StdinBinFile, isMadeAlsoWhereTheProcessHasNoStandardInput) {
    auto const end = support::runInChild([] {
        close(STDIN_FILENO);
        StdinBinFile input;
        EXPECT_TRUE(input.isValid());
        EXPECT_EQ("", readFrom(input, 1, -1));
        EXPECT_TRUE(support::streamFailureIs(EBADF, 10, 0));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ("", end.errors);
}

} // namespace
