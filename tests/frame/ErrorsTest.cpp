#include "support/CleanEnd.h"
#include "support/TempFolder.h"
#include "support/Testing.h"

#include "vesk/posix/detail/ErrorDescriptions.h"

#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/SavedErrorChain.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/SystemError.h>

#include <clocale>
#include <libintl.h>

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

TEST(SysError, hasItsTwentyRows) {
    expectRows(
        vesk::SysError,
        {"System ressources exhausted: %s",
         "System is out of memory: %s",
         "Invalid path specified: %s",
         "Given path is not a directory: %s",
         "Given path exceeds system maximum: %s (%d chars encountered, only max %d chars allowed)",
         "System call has been interrupted: %s",
         "Function not implemented: %s",
         "Permission denied: %s",
         "Supplied parameter is invalid: %s",
         "Supplied parameter has invalid address: %s",
         "Spoiled integrity: %s",
         "Input/Output error: %s",
         "A file already exists: %s",
         "The operation cannot be performed, because the object is still in use: %s",
         "The directory is not empty: %s",
         "Not enough space left on file system: %s",
         "Given device is not existing, not ready or does not support the operation: %s",
         "Querying the requested system information failed: %s",
         "The given process does not exist",
         "Unclassified error occured: %s"},
        1, true, {{SysErrorId::PATH_TOO_LONG, 2}});
}

TEST(FileAccessError, hasItsTenRows) {
    expectRows(
        vesk::FileAccessError,
        {"Bad path '%s'", "Path '%s' is not a directory", "Path '%s' is a directory",
         "Access to path '%s' denied", "'%s' is already existing", "Path '%s' is busy",
         "Can't get file descriptor for path '%s'", "Not enough space to create '%s'",
         "Given device '%s' is not existing or not ready",
         "Unclassified open/access error occured for path '%s'"},
        1, false);
}

TEST(MutexError, hasItsRowsAlsoUnderItsOtherNameAndSoHasConditionError) {
    expectRows(
        vesk::Mutex::Error,
        {"Mutex creation failed: %s", "Mutex lock failed: %s", "Mutex unlock failed: %s",
         "Mutex inconsistency detected: %s", "Mutex owner ended while holding it: %s"},
        1);
    EXPECT_EQ(&vesk::Mutex::Error, &vesk::ShmMutex::Error);
    expectRows(
        vesk::Condition::Error,
        {"Creating condition variable failed", "Waiting on condition variable failed",
         "Signaling condition variable failed"},
        0);
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
    EXPECT_FALSE(vesk::SysError.isA(vesk::Mutex::Error)); // The rows of the others check the rest.
    ErrorOutput("file", 1, true)(vesk::Mutex::ErrorId::LOCK_FAILED, "x");
    EXPECT_TRUE(ErrorStorage::isA(vesk::SysError));
    ErrorOutput("file", 1, true)(FileAccessErrorId::NOT_A_DIRECTORY, "x");
    EXPECT_FALSE(ErrorStorage::isA(vesk::SysError));
    ErrorStorage::ack();
}

// ---- errors of open ----

auto const OPEN_ROWS = rowsOf({
    {{EPERM, EACCES, EROFS}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{ENOENT, ENOTDIR, EISDIR, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{ENXIO, ENODEV}, SysErrorId::NO_DEVICE, FileAccessErrorId::NO_DEVICE},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, FileAccessErrorId::UNCLASSIFIED},
    {{EEXIST}, SysErrorId::IN_USE, FileAccessErrorId::ALREADY_EXISTS},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
    {{ETXTBSY}, SysErrorId::IN_USE, FileAccessErrorId::BUSY},
    {{EFBIG, EOVERFLOW}, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
    {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE},
    {{EIO, EBADF}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
});
VESK_TEST_TABLE(HandleOpenErrorRows, reportsTheCauseAndThePath, testing::Test, OPEN_ROWS) {
    leaveOlderReport();
    EXPECT_FALSE(handleOpenError(GetParam().error, "/some/path"));
    EXPECT_TRUE(GetParam().isPending("/some/path"));
}

TEST(HandleOpenError, interruptionRequestsARepetitionWithoutAReport) {
    EXPECT_TRUE(handleOpenError(EINTR, "/some/path"));
    EXPECT_TRUE(chainIs({}));
    leaveOlderReport();
    EXPECT_TRUE(handleOpenError(EINTR, "/some/path"));
    EXPECT_TRUE(onlyOlderIsPending());
}

TEST(HandleOpenError, acceptsANullPathAndAnUnknownNumber) {
    for (int const error : {0, -7}) {
        ErrnoCase const reports{error, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED};
        EXPECT_FALSE(handleOpenError(error, error == 0 ? nullptr : ""));
        EXPECT_TRUE(reports.isPending(error == 0 ? "(null)" : ""));
    }
}

TEST(OpenError, isTheSameFamilyUnderAnotherName) {
    EXPECT_EQ(&vesk::OpenError, &vesk::FileAccessError);
    EXPECT_FALSE(handleOpenError(ENOENT, "x"));
    EXPECT_TRUE(ErrorStorage::isA(vesk::OpenError));
    EXPECT_FALSE(ErrorStorage::isA(vesk::SysError));
    ErrorOutput("file", 1, true)(SysErrorId::UNCLASSIFIED, "x");
    EXPECT_FALSE(ErrorStorage::isA(vesk::OpenError));
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

TEST(ErrorDescriptions, haveTheTextsOfTheCLibrary) {
    for (int number = -1; number < 4096; ++number) {
        EXPECT_STREQ(strerrordesc_np(number), vesk::detail::findErrorDescription(number)) << number;
    }
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
    EXPECT_TRUE(chainIs(std::vector<ExpectedReport>(3, CommonErrorId::CONTRACT_BROKEN)));
}

} // namespace
