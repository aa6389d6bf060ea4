#include "FileTests.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/TempFolder.h"
#include "support/calls/FileCalls.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/FileAccessError.h>
#include <vesk/FmtFileWrapper.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <istream>
#include <string>
#include <type_traits>

namespace {

using support::chainIs;
using support::failureIs;
using support::Fault;
using support::rowText;
using support::systemText;
using support::TempFolder;
using vesk::BinFileBase;
using vesk::FileAccess;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

using TextFile = vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, BinFileBase::ReadFlags>;

static_assert(std::is_base_of_v<std::istream, TextFile> && std::has_virtual_destructor_v<TextFile>);
static_assert(!std::is_copy_constructible_v<TextFile>);

class FmtFileWrapperTest : public testing::Test {
protected:
    std::string makeFile(std::string const& content) { return m_folder.makeFile("file", content); }

    TempFolder m_folder;
};

TEST_F(FmtFileWrapperTest, readsNumbersAndWords) {
    TextFile file(makeFile("8192 words\n-3\n").c_str(), BinFileBase::READ);
    EXPECT_TRUE(file.isValid());
    EXPECT_TRUE(file.good());
    unsigned int number = 0;
    std::string word;
    int negative = 0;
    EXPECT_TRUE(file >> number >> word >> negative);
    EXPECT_EQ(8192U, number);
    EXPECT_EQ("words", word);
    EXPECT_EQ(-3, negative);
    EXPECT_FALSE(file >> word);
    EXPECT_TRUE(file.eof());
    EXPECT_FALSE(file.bad());
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(file.close());
}

TEST_F(FmtFileWrapperTest, readsValuesOfTheSystem) {
    TextFile file("/proc/sys/fs/file-max", BinFileBase::READ);
    unsigned long long number = 0;
    EXPECT_TRUE(file >> number);
    EXPECT_NE(0U, number);
    EXPECT_FALSE(file.close());
}

TEST_F(FmtFileWrapperTest, hasOneBufferOf8192Bytes) {
    std::string const path = makeFile(std::string(20000, 'x'));
    TextFile file(path.c_str(), BinFileBase::READ);
    Fault const reads(inject_read, 0);
    EXPECT_EQ('x', file.get());
    EXPECT_EQ(8191, file.rdbuf()->in_avail());
    EXPECT_EQ(1, reads.getCalls());
    std::string word;
    EXPECT_TRUE(file >> word);
    EXPECT_EQ(19999U, word.size());
    EXPECT_EQ(4, reads.getCalls());
}

TEST_F(FmtFileWrapperTest, seeksInTheFile) {
    TextFile file(makeFile("0123456789").c_str(), BinFileBase::READ);
    file.seekg(7);
    EXPECT_EQ('7', file.get());
    EXPECT_EQ(std::streampos(8), file.tellg());
}

TEST_F(FmtFileWrapperTest, missingFileMakesTheStreamBadAndLeavesTheReport) {
    std::string const missing = m_folder / "missing";
    TextFile file(missing.c_str(), BinFileBase::READ);
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.bad());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ENOENT))},
         {FileAccessError, FileAccessErrorId::BAD_PATH, rowText(FileAccessErrorId::BAD_PATH, missing)}}));
    unsigned int number = 12345;
    EXPECT_FALSE(file >> number);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FmtFileWrapperTest, missingPathMakesTheStreamBadWithoutAReport) {
    TextFile const file(nullptr, BinFileBase::READ);
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.bad());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FmtFileWrapperTest, flagsAndAccessReachTheFile) {
    mode_t const mask = umask(0);
    std::string const path = m_folder / "new";
    {
        TextFile const file(
            path.c_str(), BinFileBase::READ | BinFileBase::CREATE,
            FileAccess::owner_read | FileAccess::group_read);
        EXPECT_TRUE(file.isValid());
    }
    umask(mask);
    struct stat data {};
    ASSERT_EQ(0, stat(path.c_str(), &data));
    EXPECT_EQ(0440U, data.st_mode & 07777U);
}

TEST_F(FmtFileWrapperTest, closedObjectHasAGoodStreamAndNothingToRead) {
    TextFile file(makeFile("1 2").c_str(), BinFileBase::READ);
    unsigned int number = 0;
    EXPECT_TRUE(file >> number);
    EXPECT_FALSE(file >> number && file >> number) << "the state before does not matter";
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.good());
    EXPECT_EQ(std::char_traits<char>::eof(), file.get());
    EXPECT_TRUE(
        chainIs({{std::CommonErrorId::CONTRACT_BROKEN}, {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_FALSE(file.close());
}

TEST_F(FmtFileWrapperTest, failedCloseIsReported) {
    TextFile file(makeFile("1").c_str(), BinFileBase::READ);
    {
        Fault const fault(inject_close, EIO);
        EXPECT_TRUE(file.close());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(failureIs(EIO, 11));
    EXPECT_TRUE(file.good());
    EXPECT_FALSE(file.close()) << "it may be tried again";
}

TEST_F(FmtFileWrapperTest, destructorClosesTheFileSilently) {
    support::EventRecorder const events;
    std::istream* const file = new TextFile(makeFile("1").c_str(), BinFileBase::READ);
    Fault const closes(inject_close, 0);
    delete file;
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_EQ("", events.getText());
}

TEST_F(FmtFileWrapperTest, destructorWarnsAboutAFailedClose) {
    support::EventRecorder const events;
    {
        TextFile const file(makeFile("1").c_str(), BinFileBase::READ);
        Fault const fault(inject_close, EIO);
        auto* const other = new TextFile((m_folder / "file").c_str(), BinFileBase::READ);
        delete other;
        EXPECT_EQ(2, fault.getCalls()) << "the file itself tries it once more";
    }
    EXPECT_EQ(
        "WARNING framework/include/vesk/FmtFileWrapper ~FmtFileWrapper: Error closing underlying file",
        events.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
}

} // namespace
