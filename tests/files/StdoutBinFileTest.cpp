#include "FileTests.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/StdoutBinFile.h>

#include <gtest/gtest.h>

#include <type_traits>
#include <unistd.h>

VESK_INJECT_ERRNO(int, -1, fsync, (int fd), (fd))

namespace {

using support::chainIs;
using support::Fault;
using support::getSlot;
using support::isOpen;
using support::writeTo;
using vesk::StdoutBinFile;

static_assert(std::is_base_of_v<vesk::StreamBinFileW, StdoutBinFile>);

/// Shows what only deriving classes see.
class Output : public StdoutBinFile {
public:
    using StdoutBinFile::StdoutBinFile;
    uint32_t getFlags() const { return m_flags.getWord(); }
    bool isBlocking() const { return m_blocking; }
};

TEST(StdoutBinFile, hasACloseOfItsOwnInTheSameSlot) {
    EXPECT_EQ(6, getSlot(&StdoutBinFile::close));
    EXPECT_EQ(7, getSlot(&StdoutBinFile::seek));
}

TEST(StdoutBinFile, writesToStandardOutputWithoutABuffer) {
    auto const end = support::runInChild([] {
        Output output(4096);
        EXPECT_TRUE(output.isValid());
        EXPECT_EQ(STDOUT_FILENO, output.getDescriptor());
        EXPECT_EQ(2U, output.getFlags());
        EXPECT_FALSE(output.isOutputBuffered());
        EXPECT_TRUE(output.isBlocking());
        writeTo(output, "abc");
        // Without the destructor, which has nothing left to write.
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ("abc", end.output);
    EXPECT_EQ("", end.errors);
}

TEST(StdoutBinFile, flushOfAPipeSucceeds) {
    auto const end = support::runInChild([] {
        Output output;
        Fault const syncs(inject_fsync, 0);
        writeTo(output, "abc");
        EXPECT_FALSE(output.flush(false));
        EXPECT_EQ(1, syncs.getCalls());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST(StdoutBinFile, closeEndsOnlyTheObjectsUseOfTheDescriptor) {
    ASSERT_TRUE(isOpen(STDOUT_FILENO));
    StdoutBinFile output;
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(output.close());
    EXPECT_FALSE(output.isValid());
    EXPECT_TRUE(isOpen(STDOUT_FILENO));
    unsigned int written = 12345;
    EXPECT_EQ(-1, output.write("x", 1, written));
    EXPECT_EQ(0U, written);
    EXPECT_TRUE(chainIs({{std::CommonError, 1}, {std::IBinStreamBase::StreamError, 0}}));
    EXPECT_FALSE(output.close());
    EXPECT_EQ(0, syncs.getCalls()) << "nothing is flushed";
}

TEST(StdoutBinFile, destructorLeavesTheDescriptorThroughEveryBase) {
    ASSERT_TRUE(isOpen(STDOUT_FILENO));
    Fault const syncs(inject_fsync, 0);
    { StdoutBinFile const output; }
    EXPECT_TRUE(isOpen(STDOUT_FILENO));
    vesk::BinFileBase* const file = new StdoutBinFile;
    delete file;
    EXPECT_TRUE(isOpen(STDOUT_FILENO));
    std::IBinOutputStream* const stream = new StdoutBinFile;
    delete stream;
    EXPECT_TRUE(isOpen(STDOUT_FILENO));
    EXPECT_EQ(0, syncs.getCalls());
}

} // namespace
