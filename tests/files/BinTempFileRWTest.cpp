#include "FileTests.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Locales.h"
#include "support/TempFolder.h"
#include "support/calls/FileCalls.h"

#include <vesk/BinTempFileRW.h>
#include <vesk/FileAccessError.h>
#include <vesk/MemBinFileBase.h>
#include <vesk/StreamBinFileRW.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <vector>

namespace {
std::vector<std::string> s_templates; ///< What `mkstemp` was called with.
bool s_spoils_template = false;       ///< One that fails has been used up.
} // namespace

support::Injected inject_mkstemp("mkstemp");
VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))

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

using support::chainIs;
using support::contentOf;
using support::failureIs;
using support::Fault;
using support::isOpen;
using support::rowText;
using support::systemText;
using support::TempFolder;
using vesk::BinFileBase;
using vesk::BinTempFileRW;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::StreamBinFileRW;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::WidePath;

static_assert(!std::is_polymorphic_v<BinTempFileRW> && !std::is_copy_constructible_v<BinTempFileRW>);
static_assert(!std::is_copy_assignable_v<BinTempFileRW>);

class File : public StreamBinFileRW {
public:
    using StreamBinFileRW::StreamBinFileRW;
    bool isBlocking() const { return m_blocking; }
    uint32_t getFlags() const { return m_flags.getWord(); }
};

class BinTempFileRWTest : public testing::Test {
protected:
    BinTempFileRWTest() : m_prefix(m_folder / "temp-") { s_templates.clear(); }

    WidePath getPrefix() const { return WidePath(m_prefix.c_str()); }

    size_t countFiles() const {
        size_t count = 0;
        for (auto const& entry : std::filesystem::directory_iterator(m_folder.getPath())) {
            count += entry.exists() ? 1 : 0;
        }
        return count;
    }

    static std::string pathOf(BinTempFileRW const& temp) { return temp.getPath(); }

    TempFolder m_folder;
    std::string m_prefix;
    support::EventRecorder m_events;
};

TEST_F(BinTempFileRWTest, makesAFileOfItsOwnBehindThePrefix) {
    BinTempFileRW const temp(getPrefix());
    ASSERT_TRUE(temp.isValid());
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
}

TEST_F(BinTempFileRWTest, isGoneWithItsObjectUnlessItWasTakenOver) {
    {
        BinTempFileRW const temp(getPrefix());
        EXPECT_EQ(1U, countFiles());
    }
    EXPECT_EQ(0U, countFiles());
    EXPECT_EQ("", m_events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(BinTempFileRWTest, onePrefixGivesDifferentFiles) {
    BinTempFileRW const first(getPrefix());
    BinTempFileRW const second(getPrefix());
    EXPECT_NE(pathOf(first), pathOf(second));
    EXPECT_EQ(2U, countFiles());
}

TEST_F(BinTempFileRWTest, pathIsAsValidAsThePrefix) {
    WidePath prefix("");
    ASSERT_FALSE(prefix.isValid());
    prefix.assign(getPrefix());
    BinTempFileRW const temp(prefix);
    EXPECT_TRUE(temp.isValid());
    EXPECT_FALSE(temp.getPath().isValid());
    EXPECT_EQ(1U, countFiles());
}

TEST_F(BinTempFileRWTest, prefixInAMissingDirectoryMakesNothing) {
    Fault const unlinks(inject_unlink, 0);
    {
        BinTempFileRW const temp(WidePath((m_folder / "missing/temp-").c_str()));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ENOENT))},
             {FileAccessError, FileAccessErrorId::BAD_PATH,
              rowText(FileAccessErrorId::BAD_PATH, pathOf(temp))}}))
            << "whatever has become of the template";
        EXPECT_EQ(m_folder / "missing/temp-", pathOf(temp).substr(0, pathOf(temp).size() - 6));
        EXPECT_FALSE(temp.isValid());
        EXPECT_EQ(-1, temp.getDescriptor());
    }
    EXPECT_EQ(0, unlinks.getCalls());
    EXPECT_EQ("", m_events.getText());
}

TEST_F(BinTempFileRWTest, prefixThatTheLocaleCannotExpressIsRefused) {
    support::ScopedLocale const locale("C");
    WidePath prefix = getPrefix();
    prefix += wchar_t{0x20AC};
    BinTempFileRW const temp(prefix);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EFAULT))},
         {FileAccessError, FileAccessErrorId::UNCLASSIFIED, rowText(FileAccessErrorId::UNCLASSIFIED, "")}}));
    EXPECT_FALSE(temp.isValid());
    EXPECT_TRUE(s_templates.empty());
    EXPECT_EQ(0U, countFiles());
}

TEST_F(BinTempFileRWTest, wideCharactersStandInThePath) {
    support::ScopedLocale const locale("C.UTF-8");
    ASSERT_TRUE(locale.isSet());
    BinTempFileRW const temp(WidePath((m_prefix + "\u00e4\u20ac-").c_str()));
    ASSERT_TRUE(temp.isValid());
    EXPECT_NE(std::string::npos, pathOf(temp).find("\u00e4\u20ac-"));
    EXPECT_EQ("", contentOf(pathOf(temp)));
}

struct Row {
    int error;
    int id;
    int on_top;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class BinTempFileRWRows : public BinTempFileRWTest, public testing::WithParamInterface<Row> {};

TEST_P(BinTempFileRWRows, failureIsReportedWithTheTemplate) {
    {
        Fault const fault(inject_mkstemp, GetParam().error);
        BinTempFileRW const temp(getPrefix());
        EXPECT_TRUE(chainIs(
            {{SysError, GetParam().id, rowText(SysError, GetParam().id, systemText(GetParam().error))},
             {FileAccessError, GetParam().on_top,
              rowText(FileAccessError, GetParam().on_top, m_prefix + "XXXXXX")}}));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_FALSE(temp.isValid());
        EXPECT_EQ(m_prefix + "XXXXXX", pathOf(temp));
    }
    EXPECT_EQ(0U, countFiles());
    EXPECT_EQ("", m_events.getText());
}

INSTANTIATE_TEST_SUITE_P(
    rows, BinTempFileRWRows,
    testing::Values(
        Row{EEXIST, 12, 4}, Row{EINVAL, 10, 9}, Row{EACCES, 7, 3}, Row{EPERM, 7, 3}, Row{EROFS, 7, 3},
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0}, Row{ENXIO, 16, 8},
        Row{ENOMEM, 1, 9}, Row{ENFILE, 0, 6}, Row{EMFILE, 0, 6}, Row{ETXTBSY, 13, 5}, Row{EOVERFLOW, 19, 9},
        Row{ENOSPC, 15, 7}, Row{EIO, 10, 9}));

TEST_F(BinTempFileRWTest, interruptedAttemptIsMadeAgainWithAFreshTemplate) {
    s_spoils_template = true;
    Fault const fault(inject_mkstemp, EINTR, 1, 2);
    BinTempFileRW const temp(getPrefix());
    s_spoils_template = false;
    EXPECT_TRUE(temp.isValid());
    EXPECT_EQ(std::vector<std::string>(3, m_prefix + "XXXXXX"), s_templates);
    EXPECT_EQ("", contentOf(pathOf(temp)));
    EXPECT_TRUE(chainIs({}));
}

// ---- taking it over ----

TEST_F(BinTempFileRWTest, streamTakesItOverAndLeavesItOnTheDisk) {
    std::string path;
    File file(16, 16);
    {
        BinTempFileRW temp(getPrefix());
        path = pathOf(temp);
        int const fd = temp.getDescriptor();
        EXPECT_FALSE(file.open(temp, true));
        EXPECT_FALSE(temp.isValid());
        EXPECT_EQ(path, pathOf(temp));
        EXPECT_EQ(fd, file.getDescriptor());
    }
    EXPECT_EQ(path, file.getTempPath());
    EXPECT_TRUE(file.isBlocking());
    EXPECT_EQ(3U, file.getFlags());
    support::writeTo(file, "abc");
    unsigned int position = 0;
    EXPECT_FALSE(file.seek(0, file.Begin, position));
    EXPECT_EQ("abc", support::readFrom(file, 3));
    EXPECT_FALSE(file.close());
    EXPECT_EQ("abc", contentOf(path));
    EXPECT_EQ("", m_events.getText());
}

TEST_F(BinTempFileRWTest, streamThatWasNonBlockingBlocks) {
    File file;
    EXPECT_FALSE(file.open(m_folder.makeFile("file"), file.READ_WRITE | file.NON_BLOCK));
    EXPECT_FALSE(file.isBlocking());
    BinTempFileRW temp(getPrefix());
    EXPECT_FALSE(file.open(temp, false));
    EXPECT_TRUE(file.isBlocking());
    EXPECT_EQ("", file.getTempPath()) << "the path was not asked for";
}

TEST_F(BinTempFileRWTest, fileThatIsOpenIsClosedFirst) {
    BinFileBase file;
    EXPECT_FALSE(file.open(m_folder.makeFile("file").c_str(), file.READ, file.DEFAULT_ACCESS));
    int const old = file.getDescriptor();
    BinTempFileRW temp(getPrefix());
    int const fd = temp.getDescriptor();
    EXPECT_FALSE(file.open(temp, false));
    EXPECT_FALSE(isOpen(old));
    EXPECT_EQ(fd, file.getDescriptor());
}

TEST_F(BinTempFileRWTest, stopsWhenTheOldFileCannotBeClosed) {
    BinFileBase file;
    EXPECT_FALSE(file.open(m_folder.makeFile("file").c_str(), file.READ, file.DEFAULT_ACCESS));
    BinTempFileRW temp(getPrefix());
    {
        Fault const fault(inject_close, EIO);
        EXPECT_TRUE(file.open(temp, true));
    }
    EXPECT_TRUE(failureIs(EIO, 11));
    EXPECT_TRUE(temp.isValid()) << "it is not touched";
    EXPECT_TRUE(file.hadError());
    EXPECT_EQ("", file.getTempPath());
}

TEST_F(BinTempFileRWTest, oneThatIsNotThereLeavesTheFileClosed) {
    BinTempFileRW temp(getPrefix());
    close(temp.takeDescriptor());
    File file;
    EXPECT_FALSE(file.open(temp, true));
    EXPECT_FALSE(file.isValid());
    EXPECT_EQ("", file.getTempPath());
    EXPECT_EQ(3U, file.getFlags());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(BinTempFileRWTest, pathThatTheLocaleCannotExpressAnyMoreIsNotTakenOver) {
    support::ScopedLocale const locale("C.UTF-8");
    BinTempFileRW temp(WidePath((m_prefix + "\u20ac-").c_str()));
    ASSERT_TRUE(temp.isValid());
    BinFileBase file;
    {
        support::ScopedLocale const plain("C");
        EXPECT_THROW(file.open(temp, true), std::logic_error);
    }
    EXPECT_TRUE(temp.isValid());
    EXPECT_FALSE(file.isValid());
}

TEST_F(BinTempFileRWTest, mappedFileTakesItOverToo) {
    BinTempFileRW temp(getPrefix());
    vesk::MemBinFileBase file;
    EXPECT_FALSE(file.open(temp, true));
    EXPECT_FALSE(file.truncateSize(65536));
    EXPECT_TRUE(file.addMapping(vesk::MemMapping::WRITE, 65536).isValid());
}

// ---- the destructor ----

TEST_F(BinTempFileRWTest, destructorWarnsOfEachFailureAndGoesOn) {
    {
        BinTempFileRW const temp(getPrefix());
        close(temp.getDescriptor());
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/BinTempFileRW ~BinTempFileRW: Couldn't close unused temporary file",
        m_events.getText());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(0U, countFiles()) << "it is removed all the same";
    {
        BinTempFileRW const temp(getPrefix());
        ASSERT_EQ(0, unlink(pathOf(temp).c_str()));
    }
    EXPECT_EQ(2U, m_events.getCount());
    EXPECT_EQ("Couldn't remove unused temporary file", m_events.getEvents()[1].message);
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
}

} // namespace
