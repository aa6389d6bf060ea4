#include "StreamFiles.h"
#include "support/Locales.h"

#include <vesk/BinTempFileRW.h>
#include <vesk/MemBinFileBase.h>

#include <stdexcept>

namespace {
std::vector<std::string> s_templates; ///< What `mkstemp` was called with.
bool s_spoils_template = false;       ///< Whether a failed `mkstemp` has changed the template.
} // namespace

VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))

support::Injected inject_mkstemp("mkstemp");
extern "C" int mkstemp(char* path) {
    s_templates.emplace_back(path);
    int error = 0;
    if (inject_mkstemp.fails(error)) {
        if (s_spoils_template) {
            path[s_templates.back().size() - 1] = '#';
        }
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(char*)>(inject_mkstemp.getReal())(path);
}

namespace {

using namespace support;
using vesk::BinTempFileRW;
using vesk::WidePath;

static_assert(!std::is_polymorphic_v<BinTempFileRW> && !std::is_copy_constructible_v<BinTempFileRW>);
static_assert(!std::is_copy_assignable_v<BinTempFileRW>);

class BinTempFileRWTest : public FileTest {
protected:
    BinTempFileRWTest() {
        m_folder.makeFolder("temp");
        s_templates.clear();
    }

    size_t countFiles() const {
        auto const entries = std::filesystem::directory_iterator(m_folder / "temp");
        return static_cast<size_t>(std::distance(begin(entries), end(entries)));
    }

    static std::string pathOf(BinTempFileRW const& temp) { return temp.getPath(); }

    std::string m_prefix = m_folder / "temp/temp-";
    WidePath m_wide_prefix{m_prefix.c_str()};
    EventRecorder m_events;
};

TEST_F(BinTempFileRWTest, createsAFileWithARandomEndAfterThePrefixAndRemovesIt) {
    {
        BinTempFileRW const temp(m_wide_prefix);
        ASSERT_TRUE(temp.isValid());
        EXPECT_EQ(1U, countFiles());
        std::string const path = pathOf(temp);
        EXPECT_EQ(m_prefix, path.substr(0, m_prefix.size()));
        EXPECT_EQ(m_prefix.size() + 6, path.size());
        EXPECT_EQ(std::vector<std::string>{m_prefix + "XXXXXX"}, s_templates);
        struct stat data {};
        ASSERT_EQ(0, stat(path.c_str(), &data));
        EXPECT_EQ(0600U, data.st_mode & 0777U);
        EXPECT_EQ(0, fcntl(temp.getDescriptor(), F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(1, write(temp.getDescriptor(), "x", 1));
        EXPECT_EQ("x", contentOf(path));
        EXPECT_TRUE(temp.getPath().isValid());
        BinTempFileRW const other(m_wide_prefix);
        EXPECT_NE(path, pathOf(other));
        EXPECT_EQ(2U, countFiles());
    }
    EXPECT_EQ(0U, countFiles());
    EXPECT_EQ("", m_events.getText());
}

TEST_F(BinTempFileRWTest, pathIsAsValidAsThePrefix) {
    WidePath prefix("");
    ASSERT_FALSE(prefix.isValid());
    prefix.assign(m_wide_prefix);
    BinTempFileRW const temp(prefix);
    EXPECT_TRUE(temp.isValid());
    EXPECT_FALSE(temp.getPath().isValid());
    EXPECT_EQ(1U, countFiles());
}

TEST_F(BinTempFileRWTest, prefixInAMissingDirectoryCreatesNothing) {
    Calls const none(inject_unlink, 0);
    {
        BinTempFileRW const temp(WidePath((m_missing + "/temp-").c_str()));
        EXPECT_TRUE(isMissing(pathOf(temp))) << "whatever has become of the template";
        EXPECT_EQ(m_missing + "/temp-", pathOf(temp).substr(0, pathOf(temp).size() - 6));
        EXPECT_FALSE(temp.isValid());
        EXPECT_EQ(-1, temp.getDescriptor());
    }
    EXPECT_EQ("", m_events.getText());
}

TEST_F(BinTempFileRWTest, prefixThatTheLocaleCannotExpressIsRefused) {
    ScopedLocale const locale("C");
    m_wide_prefix += wchar_t{0x20AC};
    BinTempFileRW const temp(m_wide_prefix);
    ErrnoCase const refused = {EFAULT, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED};
    EXPECT_TRUE(refused.isPending(""));
    EXPECT_FALSE(temp.isValid());
    EXPECT_TRUE(s_templates.empty());
    EXPECT_EQ(0U, countFiles());
}

TEST_F(BinTempFileRWTest, pathContainsWideCharacters) {
    ScopedLocale const locale("C.UTF-8");
    ASSERT_TRUE(locale.isSet());
    BinTempFileRW const temp(WidePath((m_prefix + "\u00e4\u20ac-").c_str()));
    ASSERT_TRUE(temp.isValid());
    EXPECT_NE(std::string::npos, pathOf(temp).find("\u00e4\u20ac-"));
    EXPECT_EQ("", contentOf(pathOf(temp)));
}

auto const MKSTEMP_ROWS = rowsOf({
    {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS},
    {{EINVAL}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
    {{EACCES, EPERM, EROFS}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{ENXIO}, SysErrorId::NO_DEVICE, FileAccessErrorId::NO_DEVICE},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, FileAccessErrorId::UNCLASSIFIED},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
    {{ETXTBSY}, SysErrorId::IN_USE, FileAccessErrorId::BUSY},
    {{EOVERFLOW}, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
    {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE},
    {{EIO}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
});
VESK_TEST_TABLE(BinTempFileRWRows, failureIsReportedWithTheTemplate, BinTempFileRWTest, MKSTEMP_ROWS) {
    {
        Calls const calls(inject_mkstemp, 1, GetParam().error);
        BinTempFileRW const temp(m_wide_prefix);
        EXPECT_TRUE(GetParam().isPending(m_prefix + "XXXXXX"));
        EXPECT_FALSE(temp.isValid());
        EXPECT_EQ(m_prefix + "XXXXXX", pathOf(temp));
    }
    EXPECT_EQ(0U, countFiles());
    EXPECT_EQ("", m_events.getText());
}

TEST_F(BinTempFileRWTest, interruptedAttemptIsRepeatedWithAFreshTemplate) {
    s_spoils_template = true;
    Fault const fault(inject_mkstemp, EINTR, 1, 2);
    BinTempFileRW const temp(m_wide_prefix);
    s_spoils_template = false;
    EXPECT_TRUE(temp.isValid());
    EXPECT_EQ(std::vector<std::string>(3, m_prefix + "XXXXXX"), s_templates);
    EXPECT_EQ("", contentOf(pathOf(temp)));
}

TEST_F(BinTempFileRWTest, streamThatTakesItLeavesItOnTheDisk) {
    std::string path;
    StreamBinFileRW file(16, 16);
    {
        BinTempFileRW temp(m_wide_prefix);
        path = pathOf(temp);
        int const fd = temp.getDescriptor();
        EXPECT_FALSE(file.open(temp, true));
        EXPECT_FALSE(temp.isValid());
        EXPECT_EQ(path, pathOf(temp));
        EXPECT_EQ(fd, file.getDescriptor());
    }
    EXPECT_EQ(path, file.getTempPath());
    EXPECT_TRUE(Reading::getBlocking(file));
    EXPECT_EQ(3U, Reading::getFlags(file));
    writeTo(file, "abc");
    EXPECT_FALSE(file.seek(0, file.Begin, m_position));
    EXPECT_EQ("abc", readFrom(file, 3));
    EXPECT_FALSE(file.close());
    EXPECT_EQ("abc", contentOf(path));
    EXPECT_EQ("", m_events.getText());
}

TEST_F(BinTempFileRWTest, streamThatTakesItClosesItsFileAndBlocksEvenIfItHasNoFile) {
    StreamBinFileRW file;
    EXPECT_FALSE(file.open(m_path, file.READ_WRITE | file.NON_BLOCK));
    EXPECT_FALSE(Reading::getBlocking(file));
    int const old = file.getDescriptor();
    BinTempFileRW temp(m_wide_prefix);
    int const fd = temp.getDescriptor();
    EXPECT_FALSE(file.open(temp, false));
    EXPECT_FALSE(isOpen(old));
    EXPECT_EQ(fd, file.getDescriptor());
    EXPECT_TRUE(Reading::getBlocking(file));
    EXPECT_EQ("", file.getTempPath()) << "the path was not requested";
    BinTempFileRW without_file(m_wide_prefix);
    close(without_file.takeDescriptor());
    EXPECT_FALSE(file.open(without_file, true));
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ("", file.getTempPath());
    EXPECT_EQ(3U, Reading::getFlags(file));
}

TEST_F(BinTempFileRWTest, stopsWhenTheOldFileCannotBeClosed) {
    BinFileBase file;
    EXPECT_FALSE(file.open(m_path.c_str(), file.READ, file.DEFAULT_ACCESS));
    BinTempFileRW temp(m_wide_prefix);
    Fault const fault(inject_close, EIO);
    EXPECT_TRUE(file.open(temp, true));
    EXPECT_TRUE(hasFailed(file, SysErrorId::INPUT_OUTPUT, EIO));
    EXPECT_TRUE(temp.isValid()) << "it is left alone";
    EXPECT_EQ("", file.getTempPath());
}

TEST_F(BinTempFileRWTest, isNotTakenIfTheLocaleCanNoLongerExpressThePath) {
    ScopedLocale const locale("C.UTF-8");
    BinTempFileRW temp(WidePath((m_prefix + "\u20ac-").c_str()));
    ASSERT_TRUE(temp.isValid());
    BinFileBase file;
    {
        ScopedLocale const plain("C");
        EXPECT_THROW(file.open(temp, true), std::logic_error);
    }
    EXPECT_TRUE(temp.isValid());
    EXPECT_FALSE(file.isValid());
}

TEST_F(BinTempFileRWTest, mappedFileTakesIt) {
    BinTempFileRW temp(m_wide_prefix);
    vesk::MemBinFileBase file;
    EXPECT_FALSE(file.open(temp, true));
    EXPECT_FALSE(file.truncateSize(65536));
    EXPECT_TRUE(file.addMapping(vesk::MemMapping::WRITE, 65536).isValid());
}

TEST_F(BinTempFileRWTest, destructorWarnsAboutEachFailureAndContinues) {
    close(BinTempFileRW(m_wide_prefix).getDescriptor());
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/BinTempFileRW ~BinTempFileRW: Couldn't close unused temporary file",
        m_events.getText());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(0U, countFiles()) << "it is still removed";
    ASSERT_EQ(0, unlink(pathOf(BinTempFileRW(m_wide_prefix)).c_str()));
    EXPECT_EQ(2U, m_events.getCount());
    EXPECT_EQ("Couldn't remove unused temporary file", m_events.getEvents()[1].message);
}

} // namespace
