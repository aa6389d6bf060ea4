#include "FileTests.h"

#include <vesk/FileSys.h>

#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/time.h>

/// The failures of the operations on paths: those of `FileSys`, `FileInfo` and the `open` of a file.

VESK_INJECT_ERRNO(int, -1, stat, (char const* path, struct stat* info), (path, info))
VESK_INJECT_ERRNO(int, -1, lstat, (char const* path, struct stat* info), (path, info))
VESK_INJECT_ERRNO(int, -1, utimes, (char const* path, timeval const* times), (path, times))
VESK_INJECT_ERRNO(int, -1, mkdir, (char const* path, mode_t mode), (path, mode))
VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))
VESK_INJECT_ERRNO(int, -1, rmdir, (char const* path), (path))
VESK_INJECT_ERRNO(int, -1, rename, (char const* from, char const* to), (from, to))
VESK_INJECT_ERRNO(int, -1, chdir, (char const* path), (path))
VESK_INJECT_ERRNO(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))
VESK_INJECT_ERRNO(int, -1, symlink, (char const* target, char const* link), (target, link))
VESK_INJECT_ERRNO(int, -1, chmod, (char const* path, mode_t mode), (path, mode))
VESK_INJECT_ERRNO(int, -1, chown, (char const* path, uid_t user, gid_t group), (path, user, group))
#if __WORDSIZE == 32
VESK_INJECT_ERRNO(int, -1, statvfs64, (char const* path, struct statvfs64* info), (path, info))
support::Injected& inject_file_system = inject_statvfs64;
#else
VESK_INJECT_ERRNO(int, -1, statvfs, (char const* path, struct statvfs* info), (path, info))
support::Injected& inject_file_system = inject_statvfs;
#endif

support::Injected inject_readlink("readlink");
extern "C" VESK_UNWATCHED ssize_t readlink(char const* path, char* buffer, size_t size) {
    // Past the sanitizers, which would look at the path themselves.
    return inject_readlink.fails() ? -1 : syscall(SYS_readlinkat, AT_FDCWD, path, buffer, size);
}

namespace {

using namespace support;
using namespace vesk;

/// The destination of `MOVE`, in the same file system.
std::string s_new_path = "/new";

/// The bad paths that an operation reports.
enum class Paths { ALL, NOT_EMPTY, NONE };

/// An operation on one path, and the reports of its failures.
struct Operation {
    using Errors = std::vector<ErrnoGroup>;
    using Show = std::string (*)(std::string const& path);

    Operation(
        char const* its_name, Injected& its_call, bool (*operation)(char const* path), Errors its_errors,
        Paths its_paths = Paths::ALL, Show its_show = [](std::string const& path) { return path; })
        : name(its_name),
          call(its_call),
          fails(operation),
          errors(std::move(its_errors)),
          paths(its_paths),
          show(its_show) {}

    /// Returns the reports of an error number, if the table has it.
    std::optional<ErrnoCase> find(int error) const {
        for (ErrnoGroup const& group : errors) {
            if (std::count(group.errors.begin(), group.errors.end(), error) != 0) {
                return ErrnoCase{error, group.cause, group.meaning};
            }
        }
        return std::nullopt;
    }

    char const* name;
    Injected& call;
    bool (*fails)(char const* path);
    Errors errors; ///< Without EINTR if the operation repeats interrupted calls.
    Paths paths;
    Show show; ///< Returns the path in the reports.
};

using Errors = std::vector<int>;

ErrnoGroup denied(Errors const& errors) {
    return {errors, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED};
}
ErrnoGroup badPaths(Errors const& errors) {
    return {errors, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH};
}
ErrnoGroup inUse(Errors const& errors) {
    return {errors, SysErrorId::IN_USE, FileAccessErrorId::BUSY};
}
ErrnoGroup notImplemented(Errors const& errors) {
    return {errors, SysErrorId::NOT_IMPLEMENTED, FileAccessErrorId::UNCLASSIFIED};
}
ErrnoGroup spoiled(Errors const& errors) {
    return {errors, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED};
}
ErrnoGroup unclassified(Errors const& errors) {
    return {errors, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED};
}

ErrnoGroup const DENIED = denied({EPERM, EACCES, EROFS});
ErrnoGroup const NO_SEARCH = denied({EACCES});
ErrnoGroup const BAD_PATH = badPaths({ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP});
ErrnoGroup const IN_USE = inUse({EBUSY, EEXIST, ETXTBSY, ENOTEMPTY});
ErrnoGroup const NOT_EMPTY = {{EEXIST, ENOTEMPTY}, SysErrorId::DIRECTORY_NOT_EMPTY, FileAccessErrorId::BUSY};
ErrnoGroup const NO_DIRECTORY = {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY, FileAccessErrorId::NOT_A_DIRECTORY};
ErrnoGroup const EXISTS_ALREADY = {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS};
ErrnoGroup const IS_DIRECTORY = {{EISDIR}, SysErrorId::INVALID_PATH, FileAccessErrorId::IS_A_DIRECTORY};
ErrnoGroup const TOO_MANY_LINKS = {
    {EMLINK}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::UNCLASSIFIED};
ErrnoGroup const NO_SPACE = {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE};
ErrnoGroup const DEVICE_ERROR = {{EIO}, SysErrorId::INPUT_OUTPUT, FileAccessErrorId::NO_DEVICE};
ErrnoGroup const NO_MEMORY = {{ENOMEM}, SysErrorId::OUT_OF_MEMORY};
ErrnoGroup const NO_MEMORY_FOR_PATH = {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, FileAccessErrorId::UNCLASSIFIED};

Operation::Errors const EXISTS_ERRORS = {
    NO_SEARCH,
    DEVICE_ERROR,
    badPaths({ENAMETOOLONG, ELOOP}),
    NO_MEMORY,
    {{EFAULT}, SysErrorId::SPOILED_INTEGRITY},
    {{EINTR, EPERM}, SysErrorId::UNCLASSIFIED}};
Operation::Errors const CHANGE_ERRORS = {
    DENIED, BAD_PATH, DEVICE_ERROR, spoiled({EFAULT, EINVAL}), NO_MEMORY, unclassified({EBUSY, ENOSPC})};
Operation::Errors const INFO_ERRORS = {
    BAD_PATH,  DEVICE_ERROR,      NO_MEMORY_FOR_PATH,
    NO_SEARCH, spoiled({EFAULT}), unclassified({EINTR, EOVERFLOW, EBADF, EPERM, 9999})};
Operation::Errors const TIME_ERRORS = {
    {{EPERM, EACCES, EROFS}, SysErrorId::PERMISSION_DENIED},
    {{ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH},
    {{EINTR, EFAULT, EIO, EINVAL}, SysErrorId::UNCLASSIFIED}};
Operation::Errors const OPEN_ERRORS = {
    DENIED,
    BAD_PATH,
    badPaths({EISDIR}),
    {{ENXIO, ENODEV}, SysErrorId::NO_DEVICE, FileAccessErrorId::NO_DEVICE},
    NO_MEMORY_FOR_PATH,
    {{EEXIST}, SysErrorId::IN_USE, FileAccessErrorId::ALREADY_EXISTS},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
    inUse({ETXTBSY}),
    NO_SPACE,
    spoiled({EAGAIN, EIO}),
    unclassified({EFBIG, EOVERFLOW})};

Operation const EXISTS(
    "exists", inject_stat, [](char const* path) { return FileSys::exists(path, true) == -1; }, EXISTS_ERRORS);
Operation const LINK_EXISTS(
    "existsForLinks", inject_lstat, [](char const* path) { return FileSys::exists(path, false) == -1; },
    EXISTS_ERRORS);
Operation const CREATE_DIR(
    "createDir", inject_mkdir, FileSys::createDir,
    {DENIED, BAD_PATH, EXISTS_ALREADY, TOO_MANY_LINKS, unclassified({EINTR, ENOSPC, EIO, EFAULT})});
Operation const REMOVE_FILE(
    "removeFile", inject_unlink, FileSys::removeFile,
    {DENIED, BAD_PATH, IN_USE, IS_DIRECTORY, spoiled({EFAULT}), NO_MEMORY, unclassified({EINTR, EIO})});
Operation const REMOVE_DIR(
    "removeDir", inject_rmdir, FileSys::removeDir,
    {DENIED, BAD_PATH, inUse({EBUSY, ETXTBSY}), NOT_EMPTY, IS_DIRECTORY, spoiled({EFAULT}), NO_MEMORY,
     unclassified({EINTR, EINVAL})});
Operation const MOVE(
    "move", inject_rename, [](char const* path) { return FileSys::move(path, s_new_path.c_str()); },
    {DENIED, BAD_PATH, badPaths({EISDIR, EINVAL}), DEVICE_ERROR, IN_USE, notImplemented({EXDEV}), NO_SPACE,
     TOO_MANY_LINKS, unclassified({EINTR, EFAULT, ENOMEM})},
    Paths::ALL, [](std::string const& path) { return path + " or " + s_new_path; });
Operation const MOVE_TO(
    "moveTo", inject_rename, [](char const* path) { return FileSys::move("/proc/self/exe", path); },
    {badPaths({ENOENT}), unclassified({EINTR, EFAULT})}, Paths::ALL,
    [](std::string const& path) { return "/proc/self/exe or " + path; });
Operation const CHANGE_WD(
    "changeWD", inject_chdir, FileSys::changeWD,
    {{{ENOENT, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::ACCESS_DENIED},
     NO_SEARCH,
     NO_DIRECTORY,
     DEVICE_ERROR,
     spoiled({EFAULT}),
     unclassified({EINTR, ENOMEM})});
Operation const CURRENT_WD(
    "currentWD", inject_getcwd,
    [](char const*) {
        std::string result = "before";
        bool const failed = FileSys::currentWD(result);
        EXPECT_EQ("before", result);
        return failed;
    },
    {{{ENOENT}, SysErrorId::INVALID_PATH},
     {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
     {{EACCES}, SysErrorId::PERMISSION_DENIED},
     {{EFAULT, EINVAL, ERANGE}, SysErrorId::SPOILED_INTEGRITY},
     {{EINTR, EIO, ENAMETOOLONG, EPERM, ENOSYS}, SysErrorId::UNCLASSIFIED}},
    Paths::NONE);
Operation const MAX_COMPONENT_LENGTH(
    "maxComponentLength", inject_file_system,
    [](char const* path) {
        unsigned int length = 7;
        bool const failed = FileSys::maxComponentLength(path, length);
        EXPECT_EQ(0U, length);
        return failed;
    },
    {BAD_PATH,
     NO_SEARCH,
     {{EIO}, SysErrorId::INPUT_OUTPUT, FileAccessErrorId::UNCLASSIFIED},
     unclassified({ENOSYS, EOVERFLOW, ENOMEM, EFAULT})});
Operation const READ_LINK(
    "readLink", inject_readlink,
    [](char const* path) {
        char buffer[] = "old";
        unsigned int size = sizeof buffer;
        bool const failed = FileSys::readLink(path, buffer, size);
        EXPECT_EQ(0U, size);
        EXPECT_STREQ("", buffer);
        EXPECT_STREQ("ld", buffer + 1) << "more than the first byte was changed";
        return failed;
    },
    {BAD_PATH, badPaths({EINVAL}), NO_SEARCH, DEVICE_ERROR, unclassified({EINTR, EFAULT, ENOMEM})});
Operation const CREATE_LINK(
    "createLink", inject_symlink, [](char const* path) { return FileSys::createLink("target", path); },
    {notImplemented({EPERM}), denied({EACCES, EROFS}), BAD_PATH, EXISTS_ALREADY, DEVICE_ERROR, NO_SPACE,
     unclassified({EINTR, EFAULT, ENOMEM})});
Operation const CHANGE_ACCESS(
    "changeAccess", inject_chmod,
    [](char const* path) { return FileSys::changeAccess(path, FileAccess::owner_all); }, CHANGE_ERRORS);
Operation const CHANGE_OWNER_GROUP(
    "changeOwnerGroup", inject_chown,
    [](char const* path) { return FileSys::changeOwnerGroup(UnicodeString(path, 0), User(0LL), Group(0LL)); },
    CHANGE_ERRORS);
Operation const INFO(
    "FileInfo", inject_stat, [](char const* path) { return !FileInfo(path, true).isValid(); }, INFO_ERRORS);
Operation const LINK_INFO(
    "FileInfoOfLink", inject_lstat, [](char const* path) { return !FileInfo(path, false).isValid(); },
    INFO_ERRORS);
Operation const SET_TIME(
    "setModTime", inject_utimes, [](char const* path) { return FileInfo::setModTime(path, 1); }, TIME_ERRORS);
Operation const SET_PRESENT(
    "setModTimeToThePresent", inject_utimes, [](char const* path) { return FileInfo::setModTime(path, 0); },
    TIME_ERRORS);

Operation const OPEN(
    "open", inject_open,
    [](char const* path) {
        FlaggedFile file;
        bool const failed = file.open(path, BinFileBase::READ_WRITE, FileAccess::none);
        EXPECT_EQ(failed, file.hadError());
        EXPECT_EQ(-1, file.getDescriptor());
        EXPECT_EQ(3U, file.getFlags());
        return failed;
    },
    OPEN_ERRORS, Paths::NOT_EMPTY);
Operation const OPEN_AT(
    "openAt", inject_openat,
    [](char const*) {
        FlaggedFile file;
        Directory const directory(TempFolder::getParent(), true);
        bool const failed = file.openAt(directory, "name", true, BinFileBase::READ, FileAccess::none);
        EXPECT_EQ(-1, file.getDescriptor());
        EXPECT_EQ(1U, file.getFlags());
        return failed;
    },
    OPEN_ERRORS, Paths::NONE, [](std::string const&) { return std::string("name"); });

Operation const* const OPERATIONS[] = {
    &EXISTS,  &LINK_EXISTS, &CREATE_DIR,           &REMOVE_FILE, &REMOVE_DIR,  &MOVE,
    &MOVE_TO, &CHANGE_WD,   &CURRENT_WD,           &READ_LINK,   &CREATE_LINK, &CHANGE_ACCESS,
    &INFO,    &LINK_INFO,   &MAX_COMPONENT_LENGTH, &SET_TIME,    &SET_PRESENT, &CHANGE_OWNER_GROUP,
    &OPEN,    &OPEN_AT};

/// An operation, an error number, and a path that causes it, if any.
struct Failure {
    Failure(
        Operation const* its_operation, int number, char const* cause = "",
        std::optional<std::string> its_path = {})
        : operation(*its_operation), errno_value(number), path(std::move(its_path)) {
        char const* const error_name = strerrorname_np(number);
        name = std::string(operation.name) + cause + "_" +
            (error_name != nullptr ? error_name : std::to_string(number));
    }

    Operation const& operation;
    int errno_value;
    std::optional<std::string> path;
    std::string name; ///< That of the test.
};

void PrintTo(Failure const& failure, std::ostream* out) {
    *out << failure.name;
}

void expectFailure(Operation const& operation, int error, char const* path) {
    EXPECT_TRUE(operation.fails(path)) << operation.name;
    std::string const shown = operation.show(path != nullptr ? path : "(null)");
    EXPECT_TRUE(operation.find(error).value().isPending(shown)) << operation.name;
}

void expectFailure(Operation const& operation, int error, std::string const& path) {
    expectFailure(operation, error, path.c_str());
}

bool exists(std::string const& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0;
}

class FailureTest : public testing::Test {
protected:
    std::string at(std::string const& name) const { return m_folder / name; }

    TempFolder m_folder;
};

std::vector<Failure> eachRow() {
    std::vector<Failure> failures;
    for (Operation const* const operation : OPERATIONS) {
        for (ErrnoGroup const& group : operation->errors) {
            for (int const error : group.errors) {
                failures.push_back({operation, error});
            }
        }
    }
    return failures;
}

VESK_TEST_TABLE(FailureRows, areReportedInPlaceOfWhatIsPending, FailureTest, eachRow()) {
    leaveOlderReport();
    Calls const calls(GetParam().operation.call, 1, GetParam().errno_value);
    expectFailure(GetParam().operation, GetParam().errno_value, "/some/path");
}

Failure const INTERRUPTED[] = {
    {&MAX_COMPONENT_LENGTH, EINTR}, {&CHANGE_ACCESS, EINTR}, {&CHANGE_OWNER_GROUP, EINTR}, {&OPEN, EINTR}};
VESK_TEST_TABLE(InterruptedCalls, areRepeatedAndAFailureBehindThemIsReported, FailureTest, INTERRUPTED) {
    Calls const calls(GetParam().operation.call, 4, EINTR, 3);
    expectFailure(GetParam().operation, ENOENT, "/no/such/path");
}

TEST_F(FailureTest, maxComponentLengthIsRepeatedAfterAnyNumberOfInterruptions) {
    constexpr int MANY = 1'000'000;
    unsigned int length = 0;
    Calls const calls(inject_file_system, MANY + 1, EINTR, MANY);
    EXPECT_FALSE(FileSys::maxComponentLength("/", length));
    EXPECT_NE(0U, length);
}

/// Returns each operation with each path that it must report.
std::vector<Failure> eachBadPath() {
    struct Row {
        char const* name;
        int error;
        std::optional<std::string> path;
    };
    std::vector<Failure> failures;
    for (Operation const* const operation : OPERATIONS) {
        for (auto const& [name, error, path] :
             {Row{"MissingFolder", ENOENT, "none/x"}, Row{"BelowAFile", ENOTDIR, "file/x"},
              Row{"LongName", ENAMETOOLONG, std::string(256, 'a')}, Row{"Loop", ELOOP, "loop/x"},
              Row{"Empty", ENOENT, ""}, Row{"Null", EFAULT, std::nullopt}}) {
            bool const names_something = path && !path->empty();
            if (operation->find(error) && operation->paths != Paths::NONE &&
                (operation->paths == Paths::ALL || names_something)) {
                failures.push_back({operation, error, name, path});
            }
        }
    }
    return failures;
}

VESK_TEST_TABLE(BadPaths, areReported, FailureTest, eachBadPath()) {
    m_folder.makeFile("file");
    m_folder.makeLink("loop", "loop");
    s_new_path = at("new");
    auto const& path = GetParam().path;
    std::string const full = path ? at(*path) : "";
    expectFailure(
        GetParam().operation, GetParam().errno_value,
        !path               ? nullptr
            : path->empty() ? ""
                            : full.c_str());
}

/// Returns each operation that reports an error number of a path.
std::vector<Failure> eachOperation(int error) {
    std::vector<Failure> failures;
    for (Operation const* const operation : OPERATIONS) {
        if (operation->find(error) && operation->paths != Paths::NONE) {
            failures.push_back({operation, error});
        }
    }
    return failures;
}

VESK_TEST_TABLE(FolderWithoutRights, deniesAccess, FailureTest, eachOperation(EACCES)) {
    VESK_SKIP_UNLESS_ROOT();
    m_folder.makeFolder("closed", 0700);
    m_folder.makeFile("closed/x");
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        expectFailure(GetParam().operation, EACCES, at("closed/x"));
    });
}

TEST_F(FailureTest, changeOrRemovalOfAFileOfAnotherUserIsDenied) {
    VESK_SKIP_UNLESS_ROOT();
    // Like /tmp: all users create files, and only their owners remove them.
    m_folder.makeFolder("sticky", 01777);
    m_folder.makeFile("sticky/file");
    m_folder.makeFolder("sticky/dir");
    s_new_path = at("sticky/new");
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        expectFailure(REMOVE_DIR, EPERM, at("sticky/dir"));
        for (Operation const& operation : {REMOVE_FILE, CHANGE_ACCESS, CHANGE_OWNER_GROUP, MOVE, SET_TIME}) {
            expectFailure(operation, EPERM, at("sticky/file"));
        }
        for (Operation const& operation : {SET_PRESENT, OPEN}) {
            expectFailure(operation, EACCES, at("sticky/file"));
        }
    });
}

VESK_TEST_TABLE(ReadOnlyFileSystem, deniesAccess, FailureTest, eachOperation(EROFS)) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const where = m_folder.makeFolder("mount");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where)) << strerror(errno);
        m_folder.makeFile("mount/file");
        m_folder.makeFolder("mount/dir");
        ASSERT_TRUE(mountMemory(where, "", MS_REMOUNT | MS_RDONLY)) << strerror(errno);
        s_new_path = at("mount/new");
        Operation const& operation = GetParam().operation;
        bool const creates = &operation == &CREATE_DIR || &operation == &CREATE_LINK;
        char const* const name = creates ? "new" : &operation == &REMOVE_DIR ? "dir" : "file";
        expectFailure(operation, EROFS, where + "/" + name);
    });
}

/// Runs its tests in children with the mount point "mount".
class MountTest : public FailureTest {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_MOUNTS(); }

    void expectInMount(char const* options, std::function<void()> const& body) const {
        expectInChild([&] {
            ASSERT_TRUE(separateMounts() && mountMemory(m_where, options)) << strerror(errno);
            body();
        });
    }

    std::string m_where = m_folder.makeFolder("mount");
};

TEST_F(MountTest, moveBetweenTwoFileSystemsIsNotImplementedAndLosesNothing) {
    std::string const file = m_folder.makeFile("file", "content");
    s_new_path = at("mount/new");
    expectInMount("", [&] {
        EXPECT_TRUE(FileSys::move(file.c_str(), s_new_path.c_str()));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::NOT_IMPLEMENTED, "Function not implemented: " + systemText(EXDEV)},
             {FileAccessErrorId::UNCLASSIFIED,
              "Unclassified open/access error occured for path '" + file + " or " + s_new_path + "'"}}));
        EXPECT_EQ("content", contentOf(file));
        EXPECT_FALSE(exists(s_new_path)) << "nothing is copied";
    });
}

TEST_F(MountTest, mountPointIsInUse) {
    std::string const file = m_folder.makeFile("file");
    std::string const over = m_folder.makeFile("over");
    s_new_path = at("new");
    expectInMount("", [&] {
        ASSERT_EQ(0, mount(file.c_str(), over.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
        expectFailure(REMOVE_DIR, EBUSY, m_where);
        expectFailure(REMOVE_FILE, EBUSY, over);
        expectFailure(MOVE, EBUSY, m_where);
    });
}

TEST_F(MountTest, fullFileSystemHasNoRoomForALinkOrADirectory) {
    expectInMount("size=64k,nr_inodes=2", [&] {
        m_folder.makeFile("mount/last");
        expectFailure(CREATE_LINK, ENOSPC, at("mount/link"));
        expectFailure(CREATE_DIR, ENOSPC, at("mount/dir"));
    });
}

TEST_F(MountTest, linksAreNotImplementedInAFileSystemWithoutThem) {
    expectInChild([&] {
        ASSERT_TRUE(separateMounts());
        // The file system of terminals has no links.
        ASSERT_EQ(0, mount("devpts", m_where.c_str(), "devpts", 0, "")) << strerror(errno);
        expectFailure(CREATE_LINK, EPERM, at("mount/link"));
    });
}

struct Refusal : NamedRow {
    Operation const& operation;
    std::string path;
    int error;
    char const* new_path = ""; ///< The destination of a move.
};

Refusal const REFUSALS[] = {
    {"directoryExists", CREATE_DIR, "dir", EEXIST},
    {"parentOfADirectoryIsMissing", CREATE_DIR, "none/new", ENOENT},
    // Linux returns EISDIR; other systems may return EPERM.
    {"directoryIsRemovedAsAFile", REMOVE_FILE, "dir", EISDIR},
    {"fileIsRemovedAsADirectory", REMOVE_DIR, "file", ENOTDIR},
    {"directoryIsRemovedByItsDot", REMOVE_DIR, "dir/.", EINVAL},
    {"directoryIsNotEmpty", REMOVE_DIR, "full", ENOTEMPTY},
    {"fileAsAWorkingDirectory", CHANGE_WD, "file", ENOTDIR},
    {"linkExists", CREATE_LINK, "link", EEXIST},
    {"fileIsNoLink", READ_LINK, "file", EINVAL},
    {"directoryIsOpened", OPEN, "dir", EISDIR},
    {"targetOfALinkIsMissing", OPEN, "link", ENOENT},
    {"sourceIsMissing", MOVE, "none", ENOENT, "new"},
    {"parentOfTheDestinationIsMissing", MOVE, "file", ENOENT, "none/new"},
    {"destinationBelowAFile", MOVE, "file", ENOTDIR, "full/file/new"},
    {"directoryToAFile", MOVE, "dir", ENOTDIR, "file"},
    {"fileToADirectory", MOVE, "file", EISDIR, "dir"},
    {"directoryIntoItself", MOVE, "dir", EINVAL, "dir/new"},
    {"directoryToAFullOne", MOVE, "dir", ENOTEMPTY, "full"},
    {"directoryByItsDot", MOVE, "dir/.", EBUSY, "new"},
};

VESK_TEST_TABLE(Refusals, areReportedAndChangeNothing, FailureTest, REFUSALS) {
    m_folder.makeFile("file", "x");
    m_folder.makeFolder("dir");
    m_folder.makeFolder("full");
    m_folder.makeFile("full/file");
    m_folder.makeLink("link", "a");
    std::string const path = at(GetParam().path);
    s_new_path = at(GetParam().new_path);
    bool const existed = exists(path);
    expectFailure(GetParam().operation, GetParam().error, path);
    EXPECT_EQ(existed, exists(path));
    EXPECT_EQ("x", contentOf(at("file")));
    EXPECT_TRUE(exists(at("full/file")));
}

TEST_F(FailureTest, longPathsOfAMoveAreCutLikeEveryReport) {
    std::string const source = at(std::string(300, 'a'));
    std::string const destination = at(std::string(300, 'b'));
    EXPECT_TRUE(FileSys::move(source.c_str(), destination.c_str()));
    std::string text = rowText(FileAccessErrorId::BAD_PATH, source + " or " + destination);
    text = text.substr(0, std::ErrorObject::TEXT_SIZE - 1 - 3) + "...";
    EXPECT_TRUE(chainIs({SysErrorId::INVALID_PATH, {FileAccessErrorId::BAD_PATH, text}}));

    // The longest text that is not cut.
    std::string const near(std::ErrorObject::TEXT_SIZE - 1 - strlen("Bad path '/no/a or '"), 'b');
    EXPECT_TRUE(FileSys::move("/no/a", near.c_str()));
    EXPECT_TRUE(chainIs(
        {SysErrorId::INVALID_PATH, {FileAccessErrorId::BAD_PATH, "Bad path '/no/a or " + near + "'"}}));
}

TEST_F(FailureTest, accessToAMissingWorkingDirectoryIsDenied) {
    std::string const path = at("none");
    EXPECT_TRUE(FileSys::changeWD(path.c_str()));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, "Invalid path specified: " + systemText(ENOENT)},
         {FileAccessErrorId::ACCESS_DENIED, "Access to path '" + path + "' denied"}}));
}

} // namespace
