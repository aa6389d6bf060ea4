#include "FileTests.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"
#include "support/TempFolder.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/StderrBinFile.h>
#include <vesk/StdoutBinFile.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <unistd.h>

VESK_INJECT_ERRNO(int, -1, fsync, (int fd), (fd))

namespace {

using support::chainIs;
using support::ChildEnd;
using support::Fault;
using support::getSlot;
using support::isOpen;
using support::writeTo;
using vesk::StderrBinFile;
using vesk::StdoutBinFile;

/// The descriptor of each class, and where a child's end tells what came there and what came at the other one.
template <typename File>
struct Traits;
template <>
struct Traits<StderrBinFile> {
    static constexpr char const* TEXT = "StderrBinFile";
    static constexpr int DESCRIPTOR = STDERR_FILENO;
    static constexpr auto WRITTEN = &ChildEnd::errors;
    static constexpr auto OTHER = &ChildEnd::output;
};
template <>
struct Traits<StdoutBinFile> {
    static constexpr char const* TEXT = "StdoutBinFile";
    static constexpr int DESCRIPTOR = STDOUT_FILENO;
    static constexpr auto WRITTEN = &ChildEnd::output;
    static constexpr auto OTHER = &ChildEnd::errors;
};

struct Names {
    template <typename File>
    static std::string GetName(int) {
        return Traits<File>::TEXT;
    }
};

template <typename File>
class StandardBinFile : public testing::Test {
    static_assert(std::is_base_of_v<vesk::StreamBinFileW, File>);

protected:
    static constexpr int DESCRIPTOR = Traits<File>::DESCRIPTOR;

    /// Shows what only deriving classes see.
    class Output : public File {
    public:
        using File::File;
        uint32_t getFlags() const { return this->m_flags.getWord(); }
        bool isBlocking() const { return this->m_blocking; }
    };
};

using Both = testing::Types<StderrBinFile, StdoutBinFile>;
TYPED_TEST_SUITE(StandardBinFile, Both, Names);

TYPED_TEST(StandardBinFile, hasACloseOfItsOwnInTheSameSlot) {
    EXPECT_EQ(6, getSlot(&TypeParam::close));
    EXPECT_EQ(7, getSlot(&TypeParam::seek));
}

TYPED_TEST(StandardBinFile, writesToItsDescriptorWithoutABuffer) {
    auto const end = support::runInChild([] {
        typename TestFixture::Output output(4096);
        EXPECT_TRUE(output.isValid());
        EXPECT_EQ(TestFixture::DESCRIPTOR, output.getDescriptor());
        EXPECT_EQ(2U, output.getFlags());
        EXPECT_FALSE(output.isOutputBuffered());
        EXPECT_TRUE(output.isBlocking());
        writeTo(output, "abc");
        // Without the destructor, which has nothing left to write.
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ("abc", end.*Traits<TypeParam>::WRITTEN);
    EXPECT_EQ("", end.*Traits<TypeParam>::OTHER);
}

TYPED_TEST(StandardBinFile, flushOfAPipeSucceeds) {
    auto const end = support::runInChild([] {
        typename TestFixture::Output output;
        Fault const syncs(inject_fsync, 0);
        writeTo(output, "abc");
        EXPECT_FALSE(output.flush(false));
        EXPECT_EQ(1, syncs.getCalls());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TYPED_TEST(StandardBinFile, closeEndsOnlyTheObjectsUseOfTheDescriptor) {
    ASSERT_TRUE(isOpen(TestFixture::DESCRIPTOR));
    TypeParam output;
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(output.close());
    EXPECT_FALSE(output.isValid());
    EXPECT_TRUE(isOpen(TestFixture::DESCRIPTOR));
    unsigned int written = 12345;
    EXPECT_EQ(-1, output.write("x", 1, written));
    EXPECT_EQ(0U, written);
    EXPECT_TRUE(
        chainIs({{std::CommonErrorId::CONTRACT_BROKEN}, {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_FALSE(output.close());
    EXPECT_EQ(0, syncs.getCalls()) << "nothing is flushed";
}

TYPED_TEST(StandardBinFile, closesAFileThatIsOpenedThroughIt) {
    support::TempFolder const folder;
    std::string const path = folder.makeFile("file");
    int fd = -1;
    {
        TypeParam output;
        EXPECT_FALSE(output.open(path, output.WRITE));
        fd = output.getDescriptor();
        EXPECT_LT(STDERR_FILENO, fd);
        writeTo(output, "ab");
        EXPECT_FALSE(output.close());
        EXPECT_FALSE(output.isValid());
        EXPECT_FALSE(isOpen(fd));
        EXPECT_FALSE(output.open(path, output.WRITE | output.APPEND));
        EXPECT_FALSE(output.open(path, output.WRITE | output.APPEND));
        EXPECT_EQ(fd, output.getDescriptor()) << "the one before is closed";
        writeTo(output, "c");
    }
    EXPECT_FALSE(isOpen(fd)) << "by the destructor";
    EXPECT_TRUE(isOpen(TestFixture::DESCRIPTOR));
    EXPECT_EQ("abc", support::contentOf(path));
}

TYPED_TEST(StandardBinFile, failureToCloseAFileThatIsOpenedThroughItIsTold) {
    support::TempFolder const folder;
    TypeParam output;
    EXPECT_FALSE(output.open(folder.makeFile("file"), output.WRITE));
    Fault const fault(inject_fsync, EIO);
    EXPECT_TRUE(output.close());
    EXPECT_TRUE(support::streamFailureIs(EIO, 11, 1));
    EXPECT_TRUE(output.hadError());
    EXPECT_FALSE(output.close());
    EXPECT_FALSE(output.hadError());
}

TYPED_TEST(StandardBinFile, destructorLeavesTheDescriptorThroughEveryBase) {
    ASSERT_TRUE(isOpen(TestFixture::DESCRIPTOR));
    Fault const syncs(inject_fsync, 0);
    { TypeParam const output; }
    EXPECT_TRUE(isOpen(TestFixture::DESCRIPTOR));
    vesk::BinFileBase* const file = new TypeParam;
    delete file;
    EXPECT_TRUE(isOpen(TestFixture::DESCRIPTOR));
    std::IBinOutputStream* const stream = new TypeParam;
    delete stream;
    EXPECT_TRUE(isOpen(TestFixture::DESCRIPTOR));
    EXPECT_EQ(0, syncs.getCalls());
}

} // namespace
