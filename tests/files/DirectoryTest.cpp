#include "FileTests.h"
#include "support/AllocationCounter.h"
#include "support/Descriptors.h"

#include <tarncommon/error/ErrorApi.h>

#include <dirent.h>

VESK_INJECT_ERRNO(dirent*, nullptr, readdir, (DIR * dir), (dir))
VESK_INJECT_ERRNO(int, -1, closedir, (DIR * dir), (dir))
VESK_INJECT_ERRNO(
    int, -1, fstatat, (int fd, char const* path, struct stat* data, int flags), (fd, path, data, flags))

/// The result of the last `fdopendir`.
static DIR* s_stream = nullptr;

support::Injected inject_fdopendir("fdopendir");
extern "C" VESK_UNWATCHED DIR* fdopendir(int fd) {
    int error = 0;
    if (inject_fdopendir.fails(error)) {
        errno = error;
        return nullptr;
    }
    s_stream = reinterpret_cast<DIR* (*)(int)>(inject_fdopendir.getReal())(fd);
    return s_stream;
}

namespace {

using namespace support;
using namespace vesk;

static_assert(std::is_base_of_v<RefCounted, Directory>);
// The base, two flags, then the handle.
static_assert(sizeof(Directory) == sizeof(RefCounted) + sizeof(void*) + sizeof(DirectoryHandle));
static_assert(sizeof(DirectoryHandle) == 3 * sizeof(void*));

using Names = std::vector<std::string>;

/// Returns the names as the system lists them.
Names listBare(std::string const& path) {
    Names names;
    DIR* const dir = opendir(path.c_str());
    EXPECT_NE(nullptr, dir);
    while (dirent const* const entry = readdir(dir)) {
        names.emplace_back(entry->d_name);
    }
    closedir(dir);
    return names;
}

/// Moves to the end. Returns the names from the current entry on.
Names list(Directory& directory) {
    Names names;
    while (!directory.atEnd()) {
        names.emplace_back(directory.curName());
        directory.next();
    }
    return names;
}

void moveTo(Directory& directory, std::string const& name) {
    while (!directory.atEnd() && name != directory.curName()) {
        directory.next();
    }
    ASSERT_FALSE(directory.atEnd()) << name;
}

/// Returns the number of the next descriptor that the process opens.
int getNextDescriptor() {
    int const next = dup(STDIN_FILENO);
    close(next);
    return next;
}

enum class State { AT_ENTRY, AT_END, INVALID, INVALID_AT_END };

State stateOf(Directory const& directory) {
    if (directory.isValid()) {
        return directory.atEnd() ? State::AT_END : State::AT_ENTRY;
    }
    EXPECT_EQ(-1, directory.getHandle().fd);
    EXPECT_STREQ("", directory.curName());
    return directory.atEnd() ? State::INVALID_AT_END : State::INVALID;
}

char const* const AT_END_INFO = "curInfo() called on directory with atEnd() == true";
char const* const AT_END_DIR = "curDir() called on directory with atEnd() == true";
char const* const WARNING = "WARNING framework/src/vesk/posix/Directory ";

void expectInvalidAndZeroed(FileInfo const& info) {
    EXPECT_FALSE(info.isValid());
    EXPECT_TRUE(isZeroed(info));
}

ErrnoCase const NO_DIRECTORY = {ENOTDIR, SysErrorId::NOT_A_DIRECTORY, FileAccessErrorId::NOT_A_DIRECTORY};

class DirectoryTest : public testing::Test {
protected:
    Directory openFolder() const { return Directory(m_folder.getPath(), false); }

    /// Opens the folder and moves to an entry.
    Directory openAt(std::string const& name) const {
        Directory directory = openFolder();
        moveTo(directory, name);
        return directory;
    }

    /// Fails to open a directory, and acknowledges the reports.
    Directory openMissing() const {
        Directory directory(m_folder / "missing", false);
        EXPECT_TRUE(isMissing(m_folder / "missing"));
        return directory;
    }

    /// Creates the directory "folder" with one file.
    std::string makeFullFolder() const {
        m_folder.makeFolder("folder");
        m_folder.makeFile("folder/file");
        return m_folder / "folder";
    }

    TempFolder m_folder;
};

TEST_F(DirectoryTest, openDirectoryIsAtItsFirstEntryAndShowsItsHandle) {
    m_folder.makeFile("file");
    Directory const directory = openFolder();
    EXPECT_EQ(State::AT_ENTRY, stateOf(directory));
    EXPECT_EQ(listBare(m_folder.getPath()).front(), directory.curName());
    DirectoryHandle const& handle = directory.getHandle();
    EXPECT_EQ(s_stream, handle.dir);
    EXPECT_EQ(dirfd(handle.dir), handle.fd);
    EXPECT_EQ(directory.curName(), handle.entry->d_name);
    struct stat bare;
    ASSERT_EQ(0, stat(m_folder.getPath().c_str(), &bare));
    struct stat of_handle;
    ASSERT_EQ(0, fstat(handle.fd, &of_handle));
    EXPECT_EQ(bare.st_ino, of_handle.st_ino);
}

TEST_F(DirectoryTest, entriesAreListedInTheSystemsOrderWithHiddenOnes) {
    std::set<std::string> names = {".", "..", ".hidden"};
    m_folder.makeFile(".hidden");
    for (int i = 0; i < 500; ++i) {
        std::string const name = "entry with a long name, so that they fill more than one buffer, " +
            std::to_string(i * 7919 % 500);
        m_folder.makeFile(name);
        names.insert(name);
    }
    Directory directory = openFolder();
    Names const listed = list(directory);
    EXPECT_EQ(listBare(m_folder.getPath()), listed);
    EXPECT_EQ(names.size(), listed.size());
    EXPECT_EQ(names, std::set<std::string>(listed.begin(), listed.end()));
}

TEST_F(DirectoryTest, nextReturnsOneAtTheEndWhereItReadsAgainAndIgnoresAnEarlierErrno) {
    Directory directory = openFolder();
    std::string const first = directory.curName();
    EXPECT_EQ(0, directory.next());
    EXPECT_EQ(State::AT_ENTRY, stateOf(directory));
    std::string const last = directory.curName();
    EXPECT_EQ((std::set<std::string>{".", ".."}), (std::set<std::string>{first, last}));
    Calls const calls(inject_readdir, 2);
    for (int const earlier : {0, EIO}) {
        errno = earlier;
        EXPECT_EQ(1, directory.next());
        EXPECT_EQ(State::AT_END, stateOf(directory));
        EXPECT_EQ(last, directory.curName());
    }
}

TEST_F(DirectoryTest, processesAreFoundInProc) {
    Directory directory("/proc", false);
    ASSERT_TRUE(directory.isValid());
    moveTo(directory, std::to_string(getpid()));
    EXPECT_TRUE(directory.curInfo(false).isDirectory());
    Directory process(directory.curDir(false));
    moveTo(process, "stat");
    EXPECT_TRUE(process.curInfo(false).isRegularFile());
}

TEST_F(DirectoryTest, walkDoesNotUseTheHeap) {
    m_folder.makeFile("file");
    Directory directory = openFolder();
    AllocationCounter const allocations;
    while (!directory.atEnd()) {
        EXPECT_TRUE(directory.curInfo(false).isValid());
        Directory const copy(directory);
        directory.next();
    }
    EXPECT_EQ(0, allocations.getCount());
}

TEST_F(DirectoryTest, linkInPlaceOfThePathIsFollowedWithNoFlagExceptForReading) {
    std::string const path = makeFullFolder();
    m_folder.makeLink("link", "folder");
    for (bool const no_effect : {false, true}) {
        Directory directory(m_folder / "link", no_effect);
        EXPECT_EQ(O_RDONLY, s_file_calls.open_flags);
        ASSERT_TRUE(directory.isValid());
        EXPECT_EQ(listBare(path), list(directory));
    }
}

TEST_F(DirectoryTest, descriptorsStayOpenAcrossExec) {
    m_folder.makeFolder("folder");
    Directory const by_path = openAt("folder");
    Directory const by_name(by_path, "folder", true, false);
    Directory const by_entry(by_path.curDir(false));
    for (Directory const* const directory : {&by_path, &by_name, &by_entry}) {
        ASSERT_TRUE(directory->isValid());
        EXPECT_EQ(0, fcntl(directory->getHandle().fd, F_GETFD));
    }
    std::string const path = "/proc/self/fd/" + std::to_string(by_path.getHandle().fd);
    ChildEnd const end = runInChild([&path] { execlp("readlink", "readlink", path.c_str(), nullptr); });
    EXPECT_EQ(m_folder.getPath() + "\n", end.output) << end.errors;
}

/// Something that is no directory, and the reports of an open.
struct NoDirectory : NamedRow {
    std::string entry;
    bool within; ///< Opened by the name within the folder, not by the path.
    ErrnoCase reports;
    bool follow = true;
};

NoDirectory const DIRECTORY_BAD_PATHS[] = {
    {"emptyPath", "", false, badPath(ENOENT)},
    {"missingPath", "missing", false, badPath(ENOENT)},
    {"pathOfALoop", "loop", false, badPath(ELOOP)},
    {"nameOfALoop", "loop", true, badPath(ELOOP)},
    {"longPath", std::string(300, 'x'), false, badPath(ENAMETOOLONG)},
    {"longName", std::string(256, 'y'), true, badPath(ENAMETOOLONG)},
    {"nameOfALinkThatIsNotFollowed", "link", true, badPath(ELOOP), false},
    {"pathOfAFile", "file", false, NO_DIRECTORY},
    {"nameOfAFile", "file", true, NO_DIRECTORY},
};

VESK_TEST_TABLE(DirectoryBadPaths, cannotBeOpenedAndAreClosed, DirectoryTest, DIRECTORY_BAD_PATHS) {
    m_folder.makeFile("file");
    m_folder.makeLink("loop", "loop");
    m_folder.makeLink("link", ".");
    NoDirectory const& row = GetParam();
    std::string const path = row.entry.empty() ? "" : m_folder / row.entry;
    Directory const parent = openFolder();
    Calls const calls(inject_close, row.reports.error == ENOTDIR ? 1 : 0);
    EXPECT_EQ(
        State::INVALID,
        stateOf(row.within ? Directory(parent, row.entry, row.follow, false) : Directory(path, false)));
    EXPECT_TRUE(row.reports.isPending(row.within ? row.entry : path));
}

TEST_F(DirectoryTest, pathLongerThanTheTextOfAReportIsABadPath) {
    EXPECT_FALSE(Directory(m_folder / std::string(5000, 'x'), false).isValid());
    EXPECT_TRUE(chainIs({SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH}));
}

TEST_F(DirectoryTest, directoryWithoutReadPermissionIsDeniedAndWithoutSearchPermissionNotDescribed) {
    VESK_SKIP_UNLESS_ROOT();
    std::string const locked = m_folder.makeFolder("locked", 0);
    std::string const listed = m_folder.makeFolder("listed", 0444);
    m_folder.makeFile("listed/file");
    expectInChild([&] {
        Directory const parent = openAt("locked");
        ASSERT_TRUE(dropRights());
        EXPECT_FALSE(Directory(locked, false).isValid());
        EXPECT_TRUE(accessDenied(EACCES).isPending(locked));
        EXPECT_FALSE(Directory(parent, "locked", true, false).isValid());
        EXPECT_TRUE(accessDenied(EACCES).isPending("locked"));
        EXPECT_FALSE(parent.curDir(false).isValid());
        EXPECT_TRUE(causeIs(SysErrorId::PERMISSION_DENIED, EACCES));
        Directory directory(listed, false);
        ASSERT_TRUE(directory.isValid());
        moveTo(directory, "file");
        expectInvalidAndZeroed(directory.curInfo(false));
        EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EACCES));
    });
}

TEST_F(DirectoryTest, processOutOfDescriptorsCannotOpenADirectory) {
    m_folder.makeFolder("folder");
    expectInChild([&] {
        Directory const directory = openAt("folder");
        auto const openAll = [&](bool opens) {
            EXPECT_EQ(opens, openFolder().isValid());
            EXPECT_TRUE(opens ? chainIs({}) : EXHAUSTED.isPending(m_folder.getPath()));
            EXPECT_EQ(opens, Directory(directory, "folder", true, false).isValid());
            EXPECT_TRUE(opens ? chainIs({}) : EXHAUSTED.isPending("folder"));
            EXPECT_EQ(opens, directory.curDir(true).isValid());
            EXPECT_TRUE(opens ? chainIs({}) : causeIs(SysErrorId::RESOURCES_EXHAUSTED, EMFILE));
        };
        // Also for the sanitizers, which need descriptors when they meet a type for the first time.
        openAll(true);
        auto const next = static_cast<rlim_t>(getNextDescriptor());
        rlimit const limit{next, next};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        openAll(false);
    });
}

/// A way to open a directory, and the call of it that fails.
struct Opening : NamedRow {
    Injected* call;
    std::function<Directory(TempFolder const& folder, Directory const& parent)> open;
    int closes = 0; ///< How many descriptors the failed open closes.
    State state = State::INVALID;
    char const* shown = ""; ///< The name in the reports; empty for the path of the folder.
};

Directory openPath(TempFolder const& folder, Directory const& /*unused*/) {
    return Directory(folder.getPath(), false);
}
Directory openName(TempFolder const& /*unused*/, Directory const& parent) {
    return Directory(parent, "folder", true, false);
}
Directory openCurrent(TempFolder const& /*unused*/, Directory const& parent) {
    return parent.curDir(true, false);
}
Directory takeOver(TempFolder const& folder, Directory const& /*unused*/) {
    DirectoryHandle handle;
    handle.fd = open(folder.getPath().c_str(), O_RDONLY);
    return Directory(&handle);
}
/// Expects that the descriptor stays open.
Directory takeOverInVain(TempFolder const& folder, Directory const& /*unused*/) {
    DirectoryHandle handle;
    handle.fd = open(folder.getPath().c_str(), O_RDONLY);
    Directory directory(&handle);
    EXPECT_EQ(0, close(handle.fd));
    return directory;
}

class DirectoryOpenRows : public DirectoryTest,
                          public testing::WithParamInterface<std::tuple<Opening, ErrnoCase>> {};

TEST_P(DirectoryOpenRows, failureIsReportedAndLeavesNoDescriptorOpen) {
    auto const& [opening, reports] = GetParam();
    m_folder.makeFolder("folder");
    Directory const parent = openAt("folder");
    bool const reads = opening.call == &inject_readdir;
    EventRecorder const events;
    int const descriptors = countDescriptors();
    {
        Calls const closed(inject_close, opening.closes);
        Calls const closed_streams(inject_closedir, reads ? 1 : 0);
        Calls const calls(*opening.call, 1, reports.error);
        Directory const directory = opening.open(m_folder, parent);
        EXPECT_TRUE(reports.isPending(*opening.shown != '\0' ? opening.shown : m_folder.getPath()))
            << "as before the clean-up";
        EXPECT_EQ(opening.state, stateOf(directory));
    }
    EXPECT_EQ(descriptors, countDescriptors());
    // `closedir` has closed the descriptor, and the second close fails.
    EXPECT_EQ(reads ? WARNING + std::string("init: error closing dir-fd") : "", events.getText());
    EXPECT_FALSE(parent.atEnd());
}

INSTANTIATE_TEST_SUITE_P(
    Open, DirectoryOpenRows,
    testing::Combine(
        rowsOf<Opening>({
            {"path", &inject_open, openPath},
            {"streamOfAPath", &inject_fdopendir, openPath, 1},
            {"name", &inject_openat, openName, 0, State::INVALID, "folder"},
            {"streamOfAName", &inject_fdopendir, openName, 1, State::INVALID, "folder"},
        }),
        eachErrno({
            {{ENOENT, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
            {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
            {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY, FileAccessErrorId::NOT_A_DIRECTORY},
            {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
            {{EINTR, EPERM, ENOMEM, EIO, ENXIO, EOVERFLOW, 9999},
             SysErrorId::UNCLASSIFIED,
             FileAccessErrorId::UNCLASSIFIED},
        })));

INSTANTIATE_TEST_SUITE_P(
    TakeOver, DirectoryOpenRows,
    testing::Combine(
        rowsOf<Opening>({{"descriptor", &inject_fdopendir, takeOverInVain, 1}}),
        eachErrno({
            {{EACCES}, SysErrorId::PERMISSION_DENIED},
            {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY},
            {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
            {{EBADF, ENOENT, ELOOP, ENOMEM, EINTR}, SysErrorId::UNCLASSIFIED},
        })));

INSTANTIATE_TEST_SUITE_P(
    CurDir, DirectoryOpenRows,
    testing::Combine(
        rowsOf<Opening>({
            {"entry", &inject_openat, openCurrent, 0, State::INVALID_AT_END},
            {"entryItself", &inject_openat, [](auto&, auto& parent) { return parent.curDir(false, false); },
             0, State::INVALID_AT_END},
        }),
        eachErrno({
            {{ENOENT, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH},
            {{EACCES}, SysErrorId::PERMISSION_DENIED},
            {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY},
            {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
            {{EPERM, EINTR, EBADF, ENOMEM, ENXIO}, SysErrorId::UNCLASSIFIED},
        })));

auto const READDIR_ROWS = rowsOf({
    {{EBADF, EOVERFLOW, ENOENT}, SysErrorId::SPOILED_INTEGRITY},
    {{EIO, EINTR, EFAULT, EINVAL, ENOTDIR, 9999}, SysErrorId::UNCLASSIFIED},
});

INSTANTIATE_TEST_SUITE_P(
    FirstEntry, DirectoryOpenRows,
    testing::Combine(
        rowsOf<Opening>({
            {"path", &inject_readdir, openPath, 1, State::INVALID_AT_END},
            {"name", &inject_readdir, openName, 1, State::INVALID_AT_END},
            {"descriptor", &inject_readdir, takeOver, 1, State::INVALID_AT_END},
            {"entry", &inject_readdir, openCurrent, 1, State::INVALID_AT_END},
        }),
        testing::ValuesIn(READDIR_ROWS)));

VESK_TEST_TABLE(DirectoryNextRows, failureEndsTheWalkAndKeepsTheEntry, DirectoryTest, READDIR_ROWS) {
    Directory directory = openFolder();
    std::string const name = directory.curName();
    Calls const calls(inject_readdir, 1, GetParam().error);
    EXPECT_EQ(-1, directory.next());
    EXPECT_TRUE(GetParam().isPending());
    EXPECT_EQ(State::AT_END, stateOf(directory));
    EXPECT_EQ(name, directory.curName());
    EXPECT_FALSE(directory.curInfo(false).isValid());
    EXPECT_TRUE(isContractBroken(AT_END_INFO));
}

TEST_F(DirectoryTest, failedCloseOfAFileThatIsNoDirectoryEndsTheProcess) {
    std::string const path = m_folder.makeFile("file");
    for (int const error : {EIO, EINTR}) {
        EventRecorder const events;
        int const descriptor = getNextDescriptor();
        {
            Calls const calls(inject_close, 1, error);
            EXPECT_FALSE(Directory(path, false).isValid());
        }
        EXPECT_EQ(
            "ABORT framework/src/vesk/posix/Directory Directory: Error closing dir FD", events.getText());
        EXPECT_TRUE(NO_DIRECTORY.isPending(path));
        EXPECT_EQ(0, close(descriptor));
    }
    EXPECT_TRUE(abortsWith("Error closing dir FD", [&path] {
        Fault const fault(inject_close, EIO);
        Directory const directory(path, false);
    }));
}

TEST_F(DirectoryTest, entryIsOpenedByItsName) {
    std::string const path = makeFullFolder();
    m_folder.makeLink("link", "folder");
    Directory const parent = openFolder();
    std::string const current = parent.curName();
    for (bool const no_effect : {false, true}) {
        for (bool const follow : {false, true}) {
            Directory directory(parent, "folder", follow, no_effect);
            EXPECT_TRUE(directory.isValid());
            EXPECT_EQ(follow ? 0 : O_NOFOLLOW, s_file_calls.open_flags);
            EXPECT_EQ(listBare(path), list(directory));
        }
    }
    EXPECT_EQ(current, parent.curName()) << "the parent does not move";
    EXPECT_TRUE(Directory(parent, "..", false, false).isValid());
    EXPECT_TRUE(Directory(parent, "link", true, false).isValid());
}

TEST_F(DirectoryTest, childIsOpenedInARenamedParentAtItsEndAndStaysOpenWithoutIt) {
    std::string const path = makeFullFolder();
    Names const names = listBare(path);
    auto parent = std::make_unique<Directory>(openAt("folder"));
    Directory by_entry(parent->curDir(true));
    list(*parent);
    ASSERT_TRUE(parent->atEnd());
    std::filesystem::rename(m_folder.getPath(), m_folder.getPath() + "-renamed");
    Directory by_name(*parent, "folder", true, false);
    std::filesystem::rename(m_folder.getPath() + "-renamed", m_folder.getPath());
    parent.reset();
    EXPECT_EQ(names, list(by_name));
    EXPECT_EQ(names, list(by_entry));
}

TEST_F(DirectoryTest, nameMustBeOneComponentAndParentMustBeValid) {
    Calls const none(inject_openat, 0);
    for (Directory const& parent : {openFolder(), openMissing()}) {
        for (char const* const name : {"", "/", "a/b", "/tmp", "./", "a/"}) {
            EXPECT_EQ(State::INVALID, stateOf(Directory(parent, name, true, false)));
            EXPECT_TRUE(isContractBroken("Directory c'tor called on invalid entry-name.")) << name;
        }
    }
    EXPECT_EQ(State::INVALID, stateOf(Directory(openMissing(), "a", true, false)));
    EXPECT_TRUE(isContractBroken("Directory c'tor called on invalid directory."));
}

TEST_F(DirectoryTest, descriptorIsTakenOver) {
    m_folder.makeFile("file");
    DirectoryHandle handle;
    handle.fd = open(m_folder.getPath().c_str(), O_RDONLY);
    handle.dir = reinterpret_cast<DIR*>(&handle); // Not used.
    int const fd = handle.fd;
    {
        Directory directory(&handle);
        EXPECT_EQ(State::AT_ENTRY, stateOf(directory));
        EXPECT_EQ(fd, directory.getHandle().fd);
        EXPECT_EQ(s_stream, directory.getHandle().dir);
        handle.fd = -1;
        EXPECT_EQ(listBare(m_folder.getPath()), list(directory));
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(DirectoryTest, descriptorOfNoDirectoryIsReportedAndStaysOpen) {
    DirectoryHandle handle;
    EXPECT_EQ(State::INVALID, stateOf(Directory(&handle)));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EBADF));
    handle.fd = open(m_folder.makeFile("file").c_str(), O_RDONLY);
    {
        Calls const none(inject_close, 0);
        EXPECT_EQ(State::INVALID, stateOf(Directory(&handle)));
        EXPECT_TRUE(causeIs(SysErrorId::NOT_A_DIRECTORY, ENOTDIR));
    }
    EXPECT_EQ(0, close(handle.fd));
}

TEST_F(DirectoryTest, everyFailedCloseAfterAFailedOpenIsAWarning) {
    for (bool const closes_descriptor : {false, true}) {
        EventRecorder const events;
        {
            Calls const failed_closedir(inject_closedir, 1, EINTR);
            Calls const failed_close(inject_close, 1, closes_descriptor ? 0 : EINTR);
            Fault const fault(inject_readdir, EOVERFLOW);
            EXPECT_FALSE(openFolder().isValid());
        }
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EOVERFLOW));
        std::string const warning = WARNING + std::string("init: error closing dir");
        EXPECT_EQ(closes_descriptor ? warning : warning + "\n" + warning + "-fd", events.getText());
        EXPECT_EQ(closes_descriptor ? -1 : 0, closedir(s_stream));
    }
}

TEST_F(DirectoryTest, directoryThatCouldNotBeOpenedFailsAtItsEndAndClosesNothing) {
    Calls const none(inject_closedir, 0);
    Directory directory = openMissing();
    EXPECT_EQ(-1, directory.next());
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EBADF));
    EXPECT_EQ(State::INVALID_AT_END, stateOf(directory));
    Directory const copy(directory);
    EXPECT_FALSE(copy.isValid());
}

TEST_F(DirectoryTest, currentEntryIsDescribedUnlessItWasRemoved) {
    std::string const path = m_folder.makeFile("file", "12345");
    Directory const directory = openAt("file");
    struct stat bare;
    ASSERT_EQ(0, stat(path.c_str(), &bare));
    for (bool const follow : {false, true}) {
        FileInfo const info = directory.curInfo(follow);
        EXPECT_TRUE(info.isValid());
        EXPECT_EQ(5, info.getSize());
        EXPECT_EQ(0, memcmp(&bare, &info.getStat(), sizeof bare));
    }
    ASSERT_EQ(0, unlink(path.c_str()));
    expectInvalidAndZeroed(directory.curInfo(false));
    EXPECT_TRUE(isMissing("file"));
}

TEST_F(DirectoryTest, linkOrItsTargetIsDescribed) {
    std::string const file = m_folder.makeFile("file", "12345");
    m_folder.makeLink("link", "file");
    Directory const directory = openAt("link");
    EXPECT_TRUE(directory.curInfo(false).isSymbolicLink());
    EXPECT_EQ(4, directory.curInfo(false).getSize());
    EXPECT_TRUE(directory.curInfo(true).isRegularFile());
    EXPECT_EQ(5, directory.curInfo(true).getSize());
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_TRUE(directory.curInfo(false).isValid());
    expectInvalidAndZeroed(directory.curInfo(true));
    EXPECT_TRUE(isMissing("link"));
    EXPECT_FALSE(directory.atEnd()) << "the walk goes on";
}

auto const FSTATAT_ROWS = rowsOf({
    {{ENOENT}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{EBADF, ENOTDIR, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {{EACCES, ELOOP, EIO, EINTR, EOVERFLOW, ENOMEM}, SysErrorId::UNCLASSIFIED},
});
VESK_TEST_TABLE(DirectoryCurInfoRows, failureIsReportedAndTheResultIsInvalid, DirectoryTest, FSTATAT_ROWS) {
    Directory const directory = openFolder();
    for (bool const follow : {false, true}) {
        Calls const calls(inject_fstatat, 1, GetParam().error);
        expectInvalidAndZeroed(directory.curInfo(follow));
        EXPECT_TRUE(GetParam().isPending(directory.curName()));
    }
    EXPECT_FALSE(directory.atEnd());
}

TEST_F(DirectoryTest, curDirFollowsLinksUnlessItsTwoArgumentsRefuseThem) {
    std::string const path = makeFullFolder();
    m_folder.makeLink("link", "folder");
    Directory const directory = openAt("folder");
    Directory const link = openAt("link");
    for (bool const no_effect : {false, true}) {
        for (bool const follow : {false, true}) {
            Directory child = directory.curDir(follow, no_effect);
            EXPECT_EQ(State::AT_ENTRY, stateOf(child));
            EXPECT_EQ(follow ? 0 : O_NOFOLLOW, s_file_calls.open_flags);
            EXPECT_EQ(listBare(path), list(child));
        }
        Directory child = link.curDir(no_effect);
        EXPECT_TRUE(child.isValid());
        EXPECT_EQ(listBare(path), list(child));
        EXPECT_TRUE(link.curDir(true, no_effect).isValid());
        EXPECT_EQ(State::INVALID_AT_END, stateOf(link.curDir(false, no_effect)));
        EXPECT_TRUE(causeIs(SysErrorId::INVALID_PATH, ELOOP));
    }
    EXPECT_STREQ("folder", directory.curName());
}

TEST_F(DirectoryTest, entryThatIsNoDirectoryIsClosedWithAWarningIfThatFails) {
    m_folder.makeFile("file");
    Directory const directory = openAt("file");
    for (int const error : {0, EIO}) {
        EventRecorder const events;
        int const descriptor = getNextDescriptor();
        {
            Calls const calls(inject_close, 1, error);
            EXPECT_EQ(State::INVALID, stateOf(directory.curDir(true)));
        }
        EXPECT_TRUE(causeIs(SysErrorId::NOT_A_DIRECTORY, ENOTDIR));
        EXPECT_EQ(error == 0 ? "" : WARNING + std::string("curDir: error closing dir-fd"), events.getText());
        EXPECT_EQ(error == 0 ? -1 : 0, close(descriptor));
    }
}

TEST_F(DirectoryTest, curInfoAndCurDirWithoutAnEntryBreakTheContract) {
    Calls const no_calls(inject_fstatat, 0);
    Calls const no_opens(inject_openat, 0);
    Directory at_end = openFolder();
    list(at_end);
    for (Directory const& directory : {at_end, openMissing()}) {
        State const before = stateOf(directory);
        for (bool const flag : {false, true}) {
            expectInvalidAndZeroed(directory.curInfo(flag));
            EXPECT_TRUE(isContractBroken(AT_END_INFO));
            EXPECT_EQ(State::INVALID_AT_END, stateOf(directory.curDir(flag)));
            EXPECT_TRUE(isContractBroken(AT_END_DIR));
            EXPECT_EQ(State::INVALID_AT_END, stateOf(directory.curDir(flag, flag)));
            EXPECT_TRUE(isContractBroken(AT_END_DIR));
        }
        EXPECT_EQ(before, stateOf(directory));
    }
}

TEST_F(DirectoryTest, lastCopyClosesTheSharedStreamOnce) {
    Fault const calls(inject_closedir, 0);
    Calls const none(inject_close, 0); // The stream closes its descriptor itself.
    {
        auto first = std::make_unique<Directory>(m_folder.getPath(), false);
        auto second = std::make_unique<Directory>(*first);
        auto third = std::make_unique<Directory>(*second);
        EXPECT_EQ(first->getHandle().dir, third->getHandle().dir);
        first.reset();
        third.reset();
        EXPECT_EQ(0, calls.getCalls());
        EXPECT_TRUE(second->isValid());
        EXPECT_EQ(0, second->next());
    }
    EXPECT_EQ(1, calls.getCalls());
}

TEST_F(DirectoryTest, copiesShareOnePosition) {
    for (int i = 0; i < 5; ++i) {
        m_folder.makeFile(std::to_string(i));
    }
    Names const bare = listBare(m_folder.getPath());
    Directory first = openFolder();
    Directory second(first);
    EXPECT_EQ(bare[0], second.curName()) << "a copy is at the entry of the original";
    for (size_t i = 1; i < 4; ++i) {
        Directory& directory = i == 2 ? second : first;
        EXPECT_EQ(0, directory.next());
        EXPECT_EQ(bare[i], directory.curName());
    }
    list(first);
    EXPECT_FALSE(second.atEnd()) << "before its own next()";
    EXPECT_EQ(1, second.next());
    EXPECT_TRUE(second.atEnd());
}

TEST_F(DirectoryTest, directoryReturnedByValueIsClosedOnce) {
    Fault const calls(inject_closedir, 0);
    Directory const directory = openFolder();
    {
        std::vector<Directory> children;
        for (int i = 0; i < 3; ++i) {
            children.push_back(directory.curDir(true));
        }
        EXPECT_EQ(0, calls.getCalls());
        for (Directory& child : children) {
            EXPECT_TRUE(child.isValid());
            EXPECT_EQ(0, child.next());
        }
    }
    EXPECT_EQ(3, calls.getCalls());
}

TEST_F(DirectoryTest, assignmentReleasesOneStreamAndSharesTheOther) {
    m_folder.makeFolder("folder");
    Fault const calls(inject_closedir, 0);
    Directory other(m_folder / "folder", false);
    DIR* const stream = other.getHandle().dir;
    {
        Directory directory = openFolder();
        Directory const copy(directory);
        directory = other;
        EXPECT_EQ(0, calls.getCalls()) << "the copy still uses it";
        EXPECT_EQ(stream, directory.getHandle().dir);
        other = copy;
        Directory& same = other;
        other = same;
        EXPECT_EQ(0, calls.getCalls());
        directory = copy;
        EXPECT_EQ(1, calls.getCalls());
        EXPECT_EQ(0, directory.next());
    }
    EXPECT_EQ(1, calls.getCalls());
    EXPECT_TRUE(other.isValid());
    EXPECT_EQ(0, other.next());
    EXPECT_EQ(1, other.next());
}

TEST_F(DirectoryTest, copiesCanBeDestroyedInDifferentThreads) {
    Fault const calls(inject_closedir, 0, 1, 1, Fault::Threads::ALL);
    for (int round = 0; round < 50; ++round) {
        std::optional<Directory> copies[5];
        copies[0].emplace(m_folder.getPath(), false);
        std::fill(std::begin(copies) + 1, std::end(copies), copies[0]);
        runInThreads(5, [&copies](int i) { copies[i].reset(); });
        EXPECT_EQ(round + 1, calls.getCalls());
    }
}

TEST_F(DirectoryTest, failedCloseIsAWarningAndAnInterruptedOneIsRepeated) {
    for (int const error : {EIO, EBADF, ENOSPC}) {
        EventRecorder const events;
        char text[200];
        {
            Fault const calls(inject_closedir, error, 1, Fault::FOREVER);
            auto copy = std::make_unique<Directory>(m_folder.getPath(), false);
            auto directory = std::make_unique<Directory>(*copy);
            copy.reset();
            EXPECT_EQ(0, calls.getCalls());
            snprintf(
                text, sizeof text,
                "%sdestroy: Error closing directory @%p; a file descriptor may have leaked!", WARNING,
                static_cast<void*>(directory.get()));
            directory.reset();
            EXPECT_EQ(1, calls.getCalls());
        }
        EXPECT_EQ(text, events.getText());
        EXPECT_FALSE(std::ErrorStorage::isError(false));
        // What was acknowledged can still be read.
        EXPECT_NE(
            std::string::npos,
            tarn_error.getReasonList().find(rowText(SysErrorId::UNCLASSIFIED, systemText(error))));
        EXPECT_EQ(0, closedir(s_stream));
    }
    Calls const calls(inject_closedir, 4, EINTR, 3);
    openFolder();
}

TEST_F(DirectoryTest, closeWithoutAStreamTripsAnAssertion) {
    EventRecorder const events;
    DIR* stream = nullptr;
    {
        Directory directory = openFolder();
        stream = std::exchange(const_cast<DirectoryHandle&>(directory.getHandle()).dir, nullptr);
    }
    std::vector<RecordedEvent> const recorded = events.getEvents();
    ASSERT_EQ(2u, recorded.size()) << events.getText();
    EXPECT_EQ("m_handle.dir != NULL", recorded[0].expression);
    EXPECT_EQ("destroy", recorded[0].function);
    EXPECT_EQ("framework/src/vesk/posix/Directory", recorded[0].file);
    EXPECT_EQ(0u, recorded[1].message.rfind("Error closing directory @", 0)) << recorded[1].message;
    EXPECT_NE(std::string::npos, tarn_error.getReasonList().find(systemText(EINVAL)));
    EXPECT_FALSE(std::ErrorStorage::isError(false));
    EXPECT_EQ(0, closedir(stream));
}

} // namespace
