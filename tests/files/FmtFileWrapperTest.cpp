#include "FileTests.h"

#include <vesk/FmtFileWrapper.h>

#include <istream>

namespace {

using namespace support;

using TextFile = vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, BinFileBase::ReadFlags>;

static_assert(std::is_base_of_v<std::istream, TextFile> && std::has_virtual_destructor_v<TextFile>);
static_assert(!std::is_copy_constructible_v<TextFile>);

class FmtFileWrapperTest : public FileTest {
protected:
    FmtFileWrapperTest() : FileTest("8192 words\n-3\n") {}
};

TEST_F(FmtFileWrapperTest, readsNumbersAndWords) {
    TextFile file(m_path.c_str(), BinFileBase::READ);
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
    m_folder.makeFile("file", std::string(20000, 'x'));
    TextFile file(m_path.c_str(), BinFileBase::READ);
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
    TextFile file(m_path.c_str(), BinFileBase::READ);
    file.seekg(5);
    EXPECT_EQ('w', file.get());
    EXPECT_EQ(std::streampos(6), file.tellg());
}

TEST_F(FmtFileWrapperTest, missingFileMakesTheStreamBadAndLeavesTheReport) {
    TextFile file(m_missing.c_str(), BinFileBase::READ);
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.bad());
    EXPECT_TRUE(isMissing(m_missing));
    unsigned int number = 12345;
    EXPECT_FALSE(file >> number);
}

TEST_F(FmtFileWrapperTest, missingPathMakesTheStreamBadWithoutAReport) {
    TextFile const file(nullptr, BinFileBase::READ);
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.bad());
}

TEST_F(FmtFileWrapperTest, flagsAndAccessReachTheFile) {
    ScopedUmask const mask(0);
    TextFile const file(
        m_missing.c_str(), BinFileBase::READ | BinFileBase::CREATE,
        FileAccess::owner_read | FileAccess::group_read);
    EXPECT_TRUE(file.isValid());
    struct stat data {};
    ASSERT_EQ(0, stat(m_missing.c_str(), &data));
    EXPECT_EQ(0440U, data.st_mode & 07777U);
}

TEST_F(FmtFileWrapperTest, closedObjectHasAGoodStreamAndNothingToRead) {
    TextFile file(m_path.c_str(), BinFileBase::READ);
    unsigned int number = 0;
    EXPECT_TRUE(file >> number);
    EXPECT_FALSE(file >> number) << "the state before does not matter";
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.good());
    EXPECT_EQ(std::char_traits<char>::eof(), file.get());
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}, {StreamErrorId::UNUSABLE}}));
    EXPECT_FALSE(file.close());
}

TEST_F(FmtFileWrapperTest, failedCloseIsReported) {
    TextFile file(m_path.c_str(), BinFileBase::READ);
    Fault const fault(inject_close, EIO);
    EXPECT_TRUE(file.close());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(causeIs(SysErrorId::INPUT_OUTPUT, EIO));
    EXPECT_TRUE(file.good());
    EXPECT_FALSE(file.close()) << "it can be tried again";
}

TEST_F(FmtFileWrapperTest, destructorClosesTheFileSilently) {
    EventRecorder const events;
    std::istream* const file = new TextFile(m_path.c_str(), BinFileBase::READ);
    Calls const closes(inject_close, 1);
    delete file;
    EXPECT_EQ("", events.getText());
}

TEST_F(FmtFileWrapperTest, destructorWarnsAboutAFailedClose) {
    EventRecorder const events;
    std::istream* const file = new TextFile(m_path.c_str(), BinFileBase::READ);
    Calls const closes(inject_close, 2, EIO); // The file itself tries it once more.
    delete file;
    EXPECT_EQ(
        "WARNING framework/include/vesk/FmtFileWrapper ~FmtFileWrapper: Error closing underlying file",
        events.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
}

} // namespace
