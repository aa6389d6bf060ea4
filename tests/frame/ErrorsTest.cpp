#include "support/Chain.h"
#include "support/CleanEnd.h"
#include "support/ErrnoCases.h"
#include "support/RunInThreads.h"
#include "support/TempFolder.h"

#include <vesk/Condition.h>
#include <vesk/FileAccessError.h>
#include <vesk/Mutex.h>
#include <vesk/SavedErrorChain.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/SysError.h>
#include <vesk/SystemError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <libintl.h>
#include <string>
#include <vector>

namespace {

namespace CommonErrorId = std::CommonErrorId;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
namespace SysErrorId = vesk::SysErrorId;
using std::ErrorOutput;
using std::ErrorStorage;
using vesk::handleOpenError;
using vesk::SavedErrorChain;
using vesk::SystemError;
using namespace support;

// ---- the families ----

struct Row {
    int nargs;
    std::string format;
};

void expectRows(std::ErrorType const& family, std::vector<Row> const& rows) {
    for (int id = 0; id < static_cast<int>(rows.size()); ++id) {
        ASSERT_NE(nullptr, family.getRow(id)) << id;
        EXPECT_EQ(id, family.getRow(id)->id);
        EXPECT_EQ(rows[static_cast<size_t>(id)].nargs, family.getRow(id)->nargs) << id;
        EXPECT_EQ(rows[static_cast<size_t>(id)].format, family.getRow(id)->format);
    }
    EXPECT_EQ(nullptr, family.getRow(static_cast<int>(rows.size())));
}

TEST(SysError, hasItsTwentyRows) {
    expectRows(
        vesk::SysError,
        {{1, "System ressources exhausted: %s"},
         {1, "System is out of memory: %s"},
         {1, "Invalid path specified: %s"},
         {1, "Given path is not a directory: %s"},
         {2, "Given path exceeds system maximum: %s (%d chars encountered, only max %d chars allowed)"},
         {1, "System call has been interrupted: %s"},
         {1, "Function not implemented: %s"},
         {1, "Permission denied: %s"},
         {1, "Supplied parameter is invalid: %s"},
         {1, "Supplied parameter has invalid address: %s"},
         {1, "Spoiled integrity: %s"},
         {1, "Input/Output error: %s"},
         {1, "A file already exists: %s"},
         {1, "The operation cannot be performed, because the object is still in use: %s"},
         {1, "The directory is not empty: %s"},
         {1, "Not enough space left on file system: %s"},
         {1, "Given device is not existing, not ready or does not support the operation: %s"},
         {1, "Querying the requested system information failed: %s"},
         {1, "The given process does not exist"},
         {1, "Unclassified error occured: %s"}});
}

TEST(FileAccessError, hasItsTenRows) {
    expectRows(
        vesk::FileAccessError,
        {{1, "Bad path '%s'"},
         {1, "Path '%s' is not a directory"},
         {1, "Path '%s' is a directory"},
         {1, "Access to path '%s' denied"},
         {1, "'%s' is already existing"},
         {1, "Path '%s' is busy"},
         {1, "Can't get file descriptor for path '%s'"},
         {1, "Not enough space to create '%s'"},
         {1, "Given device '%s' is not existing or not ready"},
         {1, "Unclassified open/access error occured for path '%s'"}});
}

TEST(MutexError, hasItsRowsAlsoUnderItsOtherNameAndSoHasConditionError) {
    expectRows(
        vesk::Mutex::Error,
        {{1, "Mutex creation failed: %s"},
         {1, "Mutex lock failed: %s"},
         {1, "Mutex unlock failed: %s"},
         {1, "Mutex inconsistency detected: %s"}});
    EXPECT_EQ(&vesk::Mutex::Error, &vesk::ShmMutex::Error);
    expectRows(
        vesk::Condition::Error,
        {{0, "Creating condition variable failed"},
         {0, "Waiting on condition variable failed"},
         {0, "Signaling condition variable failed"}});
    EXPECT_EQ(&vesk::Condition::Error, &vesk::ShmCondition::Error);
}

TEST(SysError, specialRowsShowOnlyPartOfTheirArguments) {
    ErrorOutput("file", 1, true)(SysErrorId::PATH_TOO_LONG, "name", 4711);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::PATH_TOO_LONG,
          "Given path exceeds system maximum: name (4711 chars encountered, only max ? chars allowed)"}}));
    ErrorOutput("file", 1, true)(SysErrorId::NO_SUCH_PROCESS, "unseen");
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS, "The given process does not exist"}}));
}

TEST(SysError, familiesOfClassesDeriveFromItAndFileAccessErrorDoesNot) {
    EXPECT_TRUE(vesk::Mutex::Error.isA(vesk::SysError));
    EXPECT_TRUE(vesk::Condition::Error.isA(vesk::SysError));
    EXPECT_FALSE(vesk::FileAccessError.isA(vesk::SysError));
    EXPECT_FALSE(vesk::SysError.isA(vesk::Mutex::Error));
    ErrorOutput("file", 1, true)(vesk::Mutex::ErrorId::LOCK_FAILED, "x");
    EXPECT_TRUE(ErrorStorage::isA(vesk::SysError));
    ErrorOutput("file", 1, true)(FileAccessErrorId::NOT_A_DIRECTORY, "x");
    EXPECT_FALSE(ErrorStorage::isA(vesk::SysError));
    ErrorStorage::ack();
}

// ---- errors of open ----

class HandleOpenErrorRows : public testing::TestWithParam<ErrnoCase> {};

TEST_P(HandleOpenErrorRows, reportsTheCauseAndThePath) {
    ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_FALSE(handleOpenError(GetParam().error, "/some/path"));
    EXPECT_TRUE(GetParam().isPending("/some/path"));
}

INSTANTIATE_TEST_SUITE_P(
    All, HandleOpenErrorRows,
    eachErrno({
        {{EPERM, EACCES, EROFS}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
        {{ENOENT, ENOTDIR, EISDIR, ENAMETOOLONG, ELOOP},
         SysErrorId::INVALID_PATH,
         FileAccessErrorId::BAD_PATH},
        {{ENXIO, ENODEV}, SysErrorId::NO_DEVICE, FileAccessErrorId::NO_DEVICE},
        {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, FileAccessErrorId::UNCLASSIFIED},
        {{EEXIST}, SysErrorId::IN_USE, FileAccessErrorId::ALREADY_EXISTS},
        {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
        {{ETXTBSY}, SysErrorId::IN_USE, FileAccessErrorId::BUSY},
        {{EFBIG, EOVERFLOW}, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
        {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE},
        {{EIO, EBADF}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
    }));

TEST(HandleOpenError, interruptionRequestsARepetitionWithoutAReport) {
    EXPECT_TRUE(handleOpenError(EINTR, "/some/path"));
    EXPECT_TRUE(chainIs({}));
    ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(handleOpenError(EINTR, "/some/path"));
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}})) << "the pending report stays";
}

TEST(HandleOpenError, acceptsANullPathAndAnUnknownNumber) {
    EXPECT_FALSE(handleOpenError(0, nullptr));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(0))},
         {FileAccessErrorId::UNCLASSIFIED, rowText(FileAccessErrorId::UNCLASSIFIED, "(null)")}}));
    EXPECT_FALSE(handleOpenError(-7, ""));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY},
         {FileAccessErrorId::UNCLASSIFIED, rowText(FileAccessErrorId::UNCLASSIFIED, "")}}));
}

TEST(OpenError, isTheSameFamilyUnderAnotherName) {
    EXPECT_EQ(&vesk::OpenError, &vesk::FileAccessError);
    EXPECT_FALSE(handleOpenError(ENOENT, "x"));
    EXPECT_TRUE(ErrorStorage::isA(vesk::OpenError));
    EXPECT_TRUE(ErrorStorage::isA(vesk::FileAccessError));
    EXPECT_FALSE(ErrorStorage::isA(vesk::SysError));
    ErrorOutput("file", 1, true)(SysErrorId::UNCLASSIFIED, "x");
    EXPECT_FALSE(ErrorStorage::isA(vesk::OpenError));
    EXPECT_FALSE(ErrorStorage::isA(vesk::FileAccessError));
    ErrorStorage::ack();
}

// ---- the text of an error number ----

TEST(SystemError, returnsTheSystemsTextAndTheNumber) {
    EXPECT_EQ("Permission denied (errno = 13)", SystemError(EACCES).getString());
    EXPECT_EQ("Success (errno = 0)", SystemError(0).getString());
    EXPECT_EQ("Unknown error 9999 (errno = 9999)", SystemError(9999).getString());
    EXPECT_EQ("Unknown error -1 (errno = -1)", SystemError(-1).getString());
    EXPECT_EQ(systemText(INT_MIN), SystemError(INT_MIN).getString());
}

TEST(SystemError, keepsItsNumberWhenErrnoChangesAndDoesNotChangeErrno) {
    errno = ENOENT;
    SystemError const error;
    errno = EACCES;
    EXPECT_EQ(systemText(ENOENT), error.getString());
    EXPECT_EQ(systemText(ENOENT), error.getString());
    errno = EPIPE;
    EXPECT_EQ(systemText(9999), SystemError(9999).getString());
    EXPECT_EQ(EPIPE, errno);
}

/// Translates the C library's text of EACCES into an invented language for its lifetime, in all locales
/// except "C".
class Translation {
public:
    Translation() {
        std::string const header = "Content-Type: text/plain; charset=UTF-8\n";
        std::string const original = "Permission denied";
        std::string const translated = "Nepermesita";
        // The numbers of a catalog: its mark, its format, two messages, the positions of the tables of
        // originals and translations, and no hash table. A table has the length and position of each text.
        uint32_t const end = 60 + static_cast<uint32_t>(header.size() + 1);
        uint32_t const numbers[] = {
            0x950412DE,
            0,
            2,
            28,
            44,
            0,
            0,
            0,
            59,
            static_cast<uint32_t>(original.size()),
            end,
            static_cast<uint32_t>(header.size()),
            60,
            static_cast<uint32_t>(translated.size()),
            end + static_cast<uint32_t>(original.size() + 1)};
        std::filesystem::create_directories(m_folder / "xx/LC_MESSAGES");
        std::ofstream(m_folder / "xx/LC_MESSAGES/libc.mo", std::ios::binary)
                .write(reinterpret_cast<char const*>(numbers), sizeof numbers)
            << header << '\0' << original << '\0' << translated << '\0';
        bindtextdomain("libc", m_folder.getPath().c_str());
        setenv("LANGUAGE", "xx", 1);
    }
    ~Translation() {
        unsetenv("LANGUAGE");
        setlocale(LC_MESSAGES, "C");
        bindtextdomain("libc", "/usr/share/locale");
    }

private:
    TempFolder m_folder;
};

TEST(SystemError, usesTheTranslationOfTheThreadsLocale) {
    Translation const translation;
    EXPECT_EQ("Permission denied (errno = 13)", SystemError(EACCES).getString());
    ASSERT_NE(nullptr, setlocale(LC_MESSAGES, "C.UTF-8"));
    if (systemText(EACCES) != "Nepermesita (errno = 13)") {
        GTEST_SKIP() << "the C library does not translate messages in the locale C.UTF-8";
    }
    EXPECT_EQ("Nepermesita (errno = 13)", SystemError(EACCES).getString());
    locale_t const untranslated = newlocale(LC_ALL_MASK, "C", nullptr);
    locale_t const before = uselocale(untranslated);
    EXPECT_EQ("Permission denied (errno = 13)", SystemError(EACCES).getString());
    uselocale(before);
    EXPECT_EQ("Nepermesita (errno = 13)", SystemError(EACCES).getString());
    setlocale(LC_MESSAGES, "POSIX");
    EXPECT_EQ("Permission denied (errno = 13)", SystemError(EACCES).getString());
}

TEST(SystemError, threadsHaveSeparateTexts) {
    runInThreads(4, [](int i) {
        int const number = i + 1;
        std::string const expected =
            std::string(strerrordesc_np(number)) + " (errno = " + std::to_string(number) + ")";
        for (int round = 0; round < 2000; ++round) {
            ASSERT_EQ(expected, SystemError(number).getString());
        }
    });
}

// ---- saved chains ----

/// Reports named by their numbers, the root cause 0.
void reportLevels(int count) {
    for (int i = 0; i < count; ++i) {
        ErrorOutput("file", 100 + i, i == 0)(CommonErrorId::CONTRACT_BROKEN, i);
    }
}

TEST(SavedErrorChain, restoresTheChainAfterACleanUpThatReports) {
    ErrorOutput("low", 1, true)(SysErrorId::UNCLASSIFIED, "bind");
    ErrorOutput("high", 2, false)(CommonErrorId::INVALID_ARGUMENT, "address");
    SavedErrorChain const saved;
    EXPECT_FALSE(ErrorStorage::isError(true)) << "saving acknowledges";
    ErrorOutput("cleanup", 3, true)(CommonErrorId::OUT_OF_MEMORY);
    ErrorStorage::ack();
    saved.restore();
    ASSERT_NE(nullptr, ErrorStorage::get());
    EXPECT_STREQ("high", ErrorStorage::get()->file);
    EXPECT_EQ(2, ErrorStorage::get()->line);
    EXPECT_STREQ("low", ErrorStorage::get()->next->file);
    EXPECT_EQ(1, ErrorStorage::get()->next->line);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::UNCLASSIFIED, "Unclassified error occured: bind"},
         {CommonErrorId::INVALID_ARGUMENT, "Argument is not usable: address"}}));
}

/// Returns the lines of the pending reports, from the highest level down.
std::vector<int> getLines() {
    std::vector<int> lines;
    for (std::ErrorObject const* report = ErrorStorage::get(); report != nullptr; report = report->next) {
        lines.push_back(report->line);
    }
    return lines;
}

TEST(SavedErrorChain, keepsUpToEightReportsOfTheHighestLevel) {
    reportLevels(11);
    SavedErrorChain().restore();
    EXPECT_EQ((std::vector<int>{110, 109, 108, 107, 106, 105, 104, 103}), getLines());
    reportLevels(8);
    SavedErrorChain().restore();
    EXPECT_EQ((std::vector<int>{107, 106, 105, 104, 103, 102, 101, 100}), getLines());
    ErrorStorage::ack();
}

TEST(SavedErrorChain, ofNothingRestoresNothing) {
    SavedErrorChain const saved;
    saved.restore();
    EXPECT_TRUE(chainIs({}));
    ErrorOutput("file", 1, true)(CommonErrorId::OUT_OF_MEMORY);
    saved.restore();
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
}

TEST(SavedErrorChain, opensANewChainEachTimeItIsRestored) {
    reportLevels(3);
    SavedErrorChain const saved;
    ErrorOutput("cleanup", 3, true)(CommonErrorId::OUT_OF_MEMORY);
    for (int i = 0; i < 2; ++i) {
        saved.restore();
        EXPECT_EQ((std::vector<int>{102, 101, 100}), getLines()) << "without the report of the clean-up";
    }
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN},
         {CommonErrorId::CONTRACT_BROKEN},
         {CommonErrorId::CONTRACT_BROKEN}}));
}

} // namespace
