#include "support/CleanEnd.h"
#include "support/ErrnoCases.h"
#include "support/InjectNoting.h"
#include "support/NamedRow.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"

#include <vesk/FileSys.h>

#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <fcntl.h>
#include <limits>
#include <list>
#include <pwd.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <utility>

VESK_INJECT_RESULT(
    getpwnam_r, (char const* name, passwd* entry, char* buffer, size_t size, passwd** found),
    (name, entry, buffer, size, found))
VESK_INJECT_ERRNO(int, -1, stat, (char const* path, struct stat* info), (path, info))
VESK_INJECT_ERRNO(int, -1, lstat, (char const* path, struct stat* info), (path, info))
VESK_INJECT_ERRNO(int, -1, mkdir, (char const* path, mode_t mode), (path, mode))
VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))
VESK_INJECT_ERRNO(int, -1, rmdir, (char const* path), (path))
VESK_INJECT_ERRNO(int, -1, rename, (char const* from, char const* to), (from, to))
VESK_INJECT_ERRNO(int, -1, chdir, (char const* path), (path))
#if __WORDSIZE == 32
VESK_INJECT_ERRNO(int, -1, statvfs64, (char const* path, struct statvfs64* info), (path, info))
support::Injected& inject_file_system = inject_statvfs64;
#else
VESK_INJECT_ERRNO(int, -1, statvfs, (char const* path, struct statvfs* info), (path, info))
support::Injected& inject_file_system = inject_statvfs;
#endif
VESK_INJECT_ERRNO(int, -1, symlink, (char const* target, char const* link), (target, link))
VESK_INJECT_ERRNO(int, -1, chown, (char const* path, uid_t user, gid_t group), (path, user, group))

// Arguments of the last calls.
static size_t s_readlink_size = 0;
static mode_t s_chmod_mode = 0;

VESK_INJECT_NOTING(int, -1, chmod, (char const* path, mode_t mode), (path, mode), s_chmod_mode = mode)

/// The error that pretends a link with the target "x".
constexpr int PRETEND_LINK = -1;
support::Injected inject_readlink("readlink");
extern "C" VESK_UNWATCHED ssize_t readlink(char const* path, char* buffer, size_t size) {
    s_readlink_size = size;
    int error = 0;
    if (!inject_readlink.fails(error)) {
        // Past the sanitizers, which would look at the path themselves.
        return syscall(SYS_readlinkat, AT_FDCWD, path, buffer, size);
    }
    if (error == PRETEND_LINK) {
        buffer[0] = 'x';
        return 1;
    }
    errno = error;
    return -1;
}

namespace {

using namespace support;
using namespace vesk;

struct stat infoOf(std::string const& path) {
    struct stat info {};
    EXPECT_EQ(0, lstat(path.c_str(), &info)) << path << ": " << strerror(errno);
    return info;
}

mode_t accessOf(std::string const& path) {
    return infoOf(path).st_mode & 07777;
}

bool exists(std::string const& path) {
    return FileSys::exists(path.c_str(), false) == 0;
}

/// The umask of a scope.
class Umask {
public:
    explicit Umask(mode_t mask) : m_before(umask(mask)) {}
    ~Umask() { umask(m_before); }
    Umask(Umask const&) = delete;
    Umask& operator=(Umask const&) = delete;

private:
    mode_t m_before;
};

/// An operation on one path, which is expected to fail.
struct Operation {
    char const* name;
    Injected* call;
    bool (*fails)(char const* path);
};

void PrintTo(Operation const& operation, std::ostream* out) {
    *out << operation.name;
}

/// The destination of `MOVE`, in the same file system.
std::string s_new_path = "/new";

Operation const EXISTS = {
    "exists", &inject_stat, [](char const* path) { return FileSys::exists(path, true) == -1; }};
Operation const LINK_EXISTS = {
    "existsForLinks", &inject_lstat, [](char const* path) { return FileSys::exists(path, false) == -1; }};
Operation const CREATE_DIR = {"createDir", &inject_mkdir, FileSys::createDir};
Operation const REMOVE_FILE = {"removeFile", &inject_unlink, FileSys::removeFile};
Operation const REMOVE_DIR = {"removeDir", &inject_rmdir, FileSys::removeDir};
Operation const MOVE = {
    "move", &inject_rename, [](char const* path) { return FileSys::move(path, s_new_path.c_str()); }};
Operation const MOVE_TO = {
    "moveTo", &inject_rename, [](char const* path) { return FileSys::move("/proc/self/exe", path); }};
Operation const CHANGE_WD = {"changeWD", &inject_chdir, FileSys::changeWD};
Operation const MAX_COMPONENT_LENGTH = {"maxComponentLength", &inject_file_system, [](char const* path) {
                                            unsigned int length = 7;
                                            bool const failed = FileSys::maxComponentLength(path, length);
                                            EXPECT_EQ(0U, length);
                                            return failed;
                                        }};
Operation const READ_LINK = {"readLink", &inject_readlink, [](char const* path) {
                                 char buffer[] = "old";
                                 unsigned int size = sizeof buffer;
                                 bool const failed = FileSys::readLink(path, buffer, size);
                                 EXPECT_EQ(0U, size);
                                 EXPECT_STREQ("", buffer);
                                 EXPECT_STREQ("ld", buffer + 1) << "more than the first byte was changed";
                                 return failed;
                             }};
Operation const CREATE_LINK = {
    "createLink", &inject_symlink, [](char const* path) { return FileSys::createLink("target", path); }};
Operation const CHANGE_ACCESS = {"changeAccess", &inject_chmod, [](char const* path) {
                                     return FileSys::changeAccess(path, FileAccess::owner_all);
                                 }};
Operation const CHANGE_OWNER_GROUP = {"changeOwnerGroup", &inject_chown, [](char const* path) {
                                          return FileSys::changeOwnerGroup(
                                              UnicodeString(path, 0), User(0LL), Group(0LL));
                                      }};

ErrnoGroup const DENIED = {
    {EPERM, EACCES, EROFS}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED};
ErrnoGroup const NO_SEARCH = {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED};
ErrnoGroup const BAD_PATH = {
    {ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH};
ErrnoGroup const EXISTS_ALREADY = {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS};
ErrnoGroup const IS_DIRECTORY = {{EISDIR}, SysErrorId::INVALID_PATH, FileAccessErrorId::IS_A_DIRECTORY};
ErrnoGroup const IN_USE = {{EBUSY, EEXIST, ETXTBSY, ENOTEMPTY}, SysErrorId::IN_USE, FileAccessErrorId::BUSY};
ErrnoGroup const TOO_MANY_LINKS = {
    {EMLINK}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::UNCLASSIFIED};
ErrnoGroup const NO_SPACE = {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE};
ErrnoGroup const DEVICE_ERROR = {{EIO}, SysErrorId::INPUT_OUTPUT, FileAccessErrorId::NO_DEVICE};
ErrnoGroup const NO_MEMORY = {{ENOMEM}, SysErrorId::OUT_OF_MEMORY};

ErrnoGroup spoiled(std::vector<int> const& errors) {
    return {errors, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED};
}

ErrnoGroup unclassified(std::vector<int> const& errors) {
    return {errors, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED};
}

ErrnoGroup const BAD_WORKING_DIRECTORY = {
    {ENOENT, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::ACCESS_DENIED};
ErrnoGroup const NO_DIRECTORY = {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY, FileAccessErrorId::NOT_A_DIRECTORY};
ErrnoGroup const NOT_EMPTY = {{EEXIST, ENOTEMPTY}, SysErrorId::DIRECTORY_NOT_EMPTY, FileAccessErrorId::BUSY};
ErrnoGroup const NO_LINKS = {{EPERM}, SysErrorId::NOT_IMPLEMENTED, FileAccessErrorId::UNCLASSIFIED};

/// An operation and the reports of its failure.
struct Refusal {
    Operation operation;
    ErrnoCase reports;
};

void PrintTo(Refusal const& refusal, std::ostream* out) {
    *out << refusal.operation.name << " with errno " << refusal.reports.error;
}

void expectRefusal(Operation const& operation, ErrnoCase const& reports, char const* path) {
    EXPECT_TRUE(operation.fails(path)) << operation.name;
    std::string shown = path != nullptr ? path : "(null)";
    if (operation.call == &inject_rename) {
        shown = operation.fails == MOVE.fails ? shown + " or " + s_new_path : "/proc/self/exe or " + shown;
    }
    EXPECT_TRUE(reports.isPending(shown)) << operation.name;
}

void expectRefusal(Operation const& operation, ErrnoCase const& reports, std::string const& path) {
    expectRefusal(operation, reports, path.c_str());
}

/// Returns the reports of an error number of a group.
ErrnoCase reportsOf(int error, ErrnoGroup const& group) {
    return {error, group.cause, group.meaning};
}

class FileSysTest : public testing::Test {
protected:
    std::string at(std::string const& name) const { return m_folder / name; }

    TempFolder m_folder;
};

class FileSysRows : public testing::TestWithParam<Refusal> {};

TEST_P(FileSysRows, failureIsReportedInPlaceOfWhatIsPending) {
    auto const& [operation, reports] = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Fault const fault(*operation.call, reports.error);
    expectRefusal(operation, reports, "/some/path");
    EXPECT_EQ(1, fault.getCalls()) << "the call was repeated";
}

/// Returns one test parameter per operation and error number of its table.
auto eachRefusal(std::vector<std::pair<Operation, std::vector<ErrnoGroup>>> const& tables) {
    std::vector<Refusal> refusals;
    for (auto const& [operation, table] : tables) {
        for (ErrnoGroup const& group : table) {
            for (int const error : group.errors) {
                refusals.push_back({operation, reportsOf(error, group)});
            }
        }
    }
    return testing::ValuesIn(refusals);
}

std::string nameOf(testing::TestParamInfo<Refusal> const& info) {
    return info.param.operation.name + std::string("_") + strerrorname_np(info.param.reports.error);
}

std::string nameOfOperation(testing::TestParamInfo<Operation> const& info) {
    return info.param.name;
}

std::vector<ErrnoGroup> const EXISTS_ERRORS = {
    NO_SEARCH,
    DEVICE_ERROR,
    {{ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    NO_MEMORY,
    {{EFAULT}, SysErrorId::SPOILED_INTEGRITY},
    {{EINTR, EPERM}, SysErrorId::UNCLASSIFIED}};
std::vector<ErrnoGroup> const CHANGE_ERRORS = {
    DENIED, BAD_PATH, DEVICE_ERROR, spoiled({EFAULT, EINVAL}), NO_MEMORY, unclassified({EBUSY, ENOSPC})};

INSTANTIATE_TEST_SUITE_P(
    All, FileSysRows,
    eachRefusal({
        {EXISTS, EXISTS_ERRORS},
        {LINK_EXISTS, EXISTS_ERRORS},
        {CREATE_DIR,
         {DENIED, BAD_PATH, EXISTS_ALREADY, TOO_MANY_LINKS, unclassified({EINTR, ENOSPC, EIO, EFAULT})}},
        {REMOVE_FILE,
         {DENIED, BAD_PATH, IN_USE, IS_DIRECTORY, spoiled({EFAULT}), NO_MEMORY, unclassified({EINTR, EIO})}},
        {REMOVE_DIR,
         {DENIED,
          BAD_PATH,
          {{EBUSY, ETXTBSY}, SysErrorId::IN_USE, FileAccessErrorId::BUSY},
          NOT_EMPTY,
          IS_DIRECTORY,
          spoiled({EFAULT}),
          NO_MEMORY,
          unclassified({EINTR, EINVAL})}},
        {MOVE,
         {DENIED,
          BAD_PATH,
          {{EISDIR, EINVAL}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
          DEVICE_ERROR,
          IN_USE,
          {{EXDEV}, SysErrorId::NOT_IMPLEMENTED, FileAccessErrorId::UNCLASSIFIED},
          NO_SPACE,
          TOO_MANY_LINKS,
          unclassified({EINTR, EFAULT, ENOMEM})}},
        {CHANGE_WD,
         {BAD_WORKING_DIRECTORY, NO_SEARCH, NO_DIRECTORY, DEVICE_ERROR, spoiled({EFAULT}),
          unclassified({EINTR, ENOMEM})}},
        {MAX_COMPONENT_LENGTH,
         {BAD_PATH,
          NO_SEARCH,
          {{EIO}, SysErrorId::INPUT_OUTPUT, FileAccessErrorId::UNCLASSIFIED},
          unclassified({ENOSYS, EOVERFLOW, ENOMEM, EFAULT})}},
        {READ_LINK,
         {BAD_PATH,
          {{EINVAL}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
          NO_SEARCH,
          DEVICE_ERROR,
          unclassified({EINTR, EFAULT, ENOMEM})}},
        {CREATE_LINK,
         {NO_LINKS,
          {{EACCES, EROFS}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
          BAD_PATH,
          EXISTS_ALREADY,
          DEVICE_ERROR,
          NO_SPACE,
          unclassified({EINTR, EFAULT, ENOMEM})}},
        {CHANGE_ACCESS, CHANGE_ERRORS},
        {CHANGE_OWNER_GROUP, CHANGE_ERRORS},
    }),
    nameOf);

class FileSysRepeats : public testing::TestWithParam<Operation> {};

TEST_P(FileSysRepeats, interruptedCallsAndReportsAFailureBehindThem) {
    Fault const fault(*GetParam().call, EINTR, 1, 3);
    expectRefusal(GetParam(), badPath(ENOENT), "/no/such/path");
    EXPECT_EQ(4, fault.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysRepeats, testing::Values(MAX_COMPONENT_LENGTH, CHANGE_ACCESS, CHANGE_OWNER_GROUP),
    nameOfOperation);

TEST(FileSysMaxComponentLength, callIsRepeatedAfterAnyNumberOfInterruptions) {
    constexpr int MANY = 1'000'000;
    unsigned int length = 0;
    {
        Fault const fault(inject_file_system, EINTR, 1, MANY);
        EXPECT_FALSE(FileSys::maxComponentLength("/", length));
        EXPECT_EQ(MANY + 1, fault.getCalls());
    }
    EXPECT_NE(0U, length);
}

class FileSysExistsAnswers : public testing::TestWithParam<std::pair<int, int>> {};

TEST_P(FileSysExistsAnswers, isReturnedAndNothingIsReported) {
    auto const& [error, result] = GetParam();
    Fault const fault(inject_stat, error);
    Fault const link_fault(inject_lstat, error);
    EXPECT_EQ(result, FileSys::exists("/some/path", true));
    EXPECT_EQ(result, FileSys::exists("/some/path", false));
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysExistsAnswers,
    testing::Values(std::pair(ENOENT, 1), std::pair(ENOTDIR, 1), std::pair(EOVERFLOW, 0)));

class FileSysBadPaths : public FileSysTest, public testing::WithParamInterface<Refusal> {};

TEST_P(FileSysBadPaths, areReported) {
    auto const& [operation, reports] = GetParam();
    m_folder.makeFile("file");
    m_folder.makeLink("loop", "loop");
    s_new_path = at("new");
    std::string const path = reports.error == ENOENT ? at("none/x")
        : reports.error == ENOTDIR                   ? at("file/x")
        : reports.error == ENAMETOOLONG              ? at(std::string(256, 'a'))
                                                     : at("loop/x");
    expectRefusal(operation, reports, path);
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysBadPaths,
    eachRefusal({
        {EXISTS, {EXISTS_ERRORS[2]}},
        {CREATE_DIR, {BAD_PATH}},
        {REMOVE_FILE, {BAD_PATH}},
        {REMOVE_DIR, {BAD_PATH}},
        {MOVE, {BAD_PATH}},
        {CHANGE_WD, {BAD_WORKING_DIRECTORY, NO_DIRECTORY}},
        {MAX_COMPONENT_LENGTH, {BAD_PATH}},
        {READ_LINK, {BAD_PATH}},
        {CREATE_LINK, {BAD_PATH}},
        {CHANGE_ACCESS, {BAD_PATH}},
        {CHANGE_OWNER_GROUP, {BAD_PATH}},
    }),
    nameOf);

class FileSysNullPaths : public testing::TestWithParam<Refusal> {};

TEST_P(FileSysNullPaths, areRefusedByTheSystem) {
    s_new_path = "/new";
    expectRefusal(GetParam().operation, GetParam().reports, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysNullPaths,
    eachRefusal({
        {EXISTS, {{{EFAULT}, SysErrorId::SPOILED_INTEGRITY}}},
        {CREATE_DIR, {unclassified({EFAULT})}},
        {REMOVE_FILE, {spoiled({EFAULT})}},
        {REMOVE_DIR, {spoiled({EFAULT})}},
        {MOVE, {unclassified({EFAULT})}},
        {MOVE_TO, {unclassified({EFAULT})}},
        {CHANGE_WD, {spoiled({EFAULT})}},
        {MAX_COMPONENT_LENGTH, {unclassified({EFAULT})}},
        {READ_LINK, {unclassified({EFAULT})}},
        {CREATE_LINK, {unclassified({EFAULT})}},
        {CHANGE_ACCESS, {spoiled({EFAULT})}},
        {CHANGE_OWNER_GROUP, {spoiled({EFAULT})}},
    }),
    nameOf);

class FileSysEmptyPaths : public testing::TestWithParam<Operation> {};

TEST_P(FileSysEmptyPaths, areBadPaths) {
    bool const changes_directory = GetParam().fails == CHANGE_WD.fails;
    expectRefusal(GetParam(), reportsOf(ENOENT, changes_directory ? BAD_WORKING_DIRECTORY : BAD_PATH), "");
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysEmptyPaths,
    testing::Values(
        CREATE_DIR, REMOVE_FILE, REMOVE_DIR, MOVE, MOVE_TO, CHANGE_WD, MAX_COMPONENT_LENGTH, READ_LINK,
        CREATE_LINK, CHANGE_ACCESS, CHANGE_OWNER_GROUP),
    nameOfOperation);

class FileSysWithoutRights : public FileSysTest, public testing::WithParamInterface<Operation> {};

TEST_P(FileSysWithoutRights, isDenied) {
    VESK_SKIP_UNLESS_ROOT();
    m_folder.makeFolder("closed", 0700);
    m_folder.makeFile("closed/x");
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        expectRefusal(GetParam(), accessDenied(EACCES), at("closed/x"));
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysWithoutRights,
    testing::Values(
        EXISTS, CREATE_DIR, REMOVE_FILE, REMOVE_DIR, MOVE, CHANGE_WD, MAX_COMPONENT_LENGTH, READ_LINK,
        CREATE_LINK, CHANGE_ACCESS, CHANGE_OWNER_GROUP),
    nameOfOperation);

TEST_F(FileSysTest, changeOrRemovalOfAFileOfAnotherUserIsDenied) {
    VESK_SKIP_UNLESS_ROOT();
    // Like /tmp: all users create files, and only their owners remove them.
    m_folder.makeFolder("sticky", 01777);
    m_folder.makeFile("sticky/file");
    m_folder.makeFolder("sticky/dir");
    s_new_path = at("sticky/new");
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        expectRefusal(REMOVE_DIR, accessDenied(EPERM), at("sticky/dir"));
        for (Operation const& operation : {REMOVE_FILE, CHANGE_ACCESS, CHANGE_OWNER_GROUP, MOVE}) {
            expectRefusal(operation, accessDenied(EPERM), at("sticky/file"));
        }
    });
}

/// Runs its tests in children with the mount point "mount".
class FileSysMountTest : public FileSysTest {
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

class FileSysReadOnly : public FileSysMountTest, public testing::WithParamInterface<Operation> {};

TEST_P(FileSysReadOnly, isDenied) {
    expectInMount("", [&] {
        m_folder.makeFile("mount/file");
        m_folder.makeFolder("mount/dir");
        ASSERT_TRUE(mountMemory(m_where, "", MS_REMOUNT | MS_RDONLY)) << strerror(errno);
        s_new_path = at("mount/new");
        auto const fails = GetParam().fails;
        bool const creates = fails == CREATE_DIR.fails || fails == CREATE_LINK.fails;
        char const* const name = creates ? "new" : fails == REMOVE_DIR.fails ? "dir" : "file";
        expectRefusal(GetParam(), accessDenied(EROFS), m_where + "/" + name);
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysReadOnly,
    testing::Values(
        CREATE_DIR, REMOVE_FILE, REMOVE_DIR, MOVE, CREATE_LINK, CHANGE_ACCESS, CHANGE_OWNER_GROUP),
    nameOfOperation);

TEST_F(FileSysMountTest, moveBetweenTwoFileSystemsIsNotImplementedAndLosesNothing) {
    std::string const file = m_folder.makeFile("file", "content");
    std::string const other = at("mount/new");
    expectInMount("", [&] {
        EXPECT_TRUE(FileSys::move(file.c_str(), other.c_str()));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::NOT_IMPLEMENTED, "Function not implemented: " + systemText(EXDEV)},
             {FileAccessErrorId::UNCLASSIFIED,
              "Unclassified open/access error occured for path '" + file + " or " + other + "'"}}));
        EXPECT_EQ("content", contentOf(file));
        EXPECT_FALSE(exists(other)) << "nothing is copied";
    });
}

TEST_F(FileSysMountTest, mountPointIsInUse) {
    std::string const file = m_folder.makeFile("file");
    std::string const over = m_folder.makeFile("over");
    s_new_path = at("new");
    expectInMount("", [&] {
        ASSERT_EQ(0, mount(file.c_str(), over.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
        ErrnoCase const in_use = reportsOf(EBUSY, IN_USE);
        expectRefusal(REMOVE_DIR, in_use, m_where);
        expectRefusal(REMOVE_FILE, in_use, over);
        expectRefusal(MOVE, in_use, m_where);
    });
}

TEST_F(FileSysMountTest, fullFileSystemHasNoRoomForALinkOrADirectory) {
    expectInMount("size=64k,nr_inodes=2", [&] {
        m_folder.makeFile("mount/last");
        expectRefusal(CREATE_LINK, reportsOf(ENOSPC, NO_SPACE), at("mount/link"));
        expectRefusal(CREATE_DIR, reportsOf(ENOSPC, unclassified({})), at("mount/dir"));
    });
}

TEST_F(FileSysMountTest, linksAreNotImplementedInAFileSystemWithoutThem) {
    expectInChild([&] {
        ASSERT_TRUE(separateMounts());
        // The file system of terminals has no links.
        ASSERT_EQ(0, mount("devpts", m_where.c_str(), "devpts", 0, "")) << strerror(errno);
        expectRefusal(CREATE_LINK, reportsOf(EPERM, NO_LINKS), at("mount/link"));
    });
}

struct Entry : NamedRow {
    char const* path;
    int if_followed;
    int if_not_followed;
};

class FileSysExists : public FileSysTest, public testing::WithParamInterface<Entry> {};

TEST_P(FileSysExists, answersForLinksAndTheirTargets) {
    m_folder.makeFolder("directory");
    m_folder.makeLink("dangling", "missing");
    m_folder.makeLink("loop", "loop");
    std::string const file = m_folder.makeFile("file");
    // A size that needs 64 bits.
    std::string const large = m_folder.makeFile("large");
    ASSERT_EQ(0, truncate64(large.c_str(), 3LL << 30)) << strerror(errno);
    std::string const path = *GetParam().path == '\0' ? "" : at(GetParam().path);
    EXPECT_EQ(GetParam().if_followed, FileSys::exists(path.c_str(), true));
    EXPECT_TRUE(GetParam().if_followed == -1 ? badPath(ELOOP).isPending(path) : chainIs({}));
    EXPECT_EQ(GetParam().if_not_followed, FileSys::exists(path.c_str(), false));
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysExists,
    rowsOf<Entry>({
        {"file", "file", 0, 0},
        {"directory", "directory", 0, 0},
        {"missing", "missing", 1, 1},
        {"danglingLink", "dangling", 1, 0},
        {"loopOfLinks", "loop", -1, 0},
        {"belowAFile", "file/below", 1, 1},
        {"emptyPath", "", 1, 1},
        {"largerThan2Gibibytes", "large", 0, 0},
    }),
    byName);

TEST_F(FileSysTest, accessToANewDirectoryIsTheOwnersLessTheUmask) {
    for (auto const& [mask, access] : {std::pair(0U, 0700U), std::pair(0277U, 0500U)}) {
        Umask const scope(mask);
        std::string const path = at("new" + std::to_string(mask));
        EXPECT_FALSE(FileSys::createDir(path.c_str()));
        EXPECT_TRUE(S_ISDIR(infoOf(path).st_mode));
        EXPECT_EQ(access, accessOf(path));
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(FileSysTest, removalOfALinkLeavesItsTarget) {
    std::string const file = m_folder.makeFile("file");
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileSys::removeFile(link.c_str()));
    EXPECT_FALSE(exists(link));
    EXPECT_TRUE(exists(file));
    EXPECT_FALSE(FileSys::removeFile(file.c_str()));
    EXPECT_FALSE(exists(file));
    expectRefusal(REMOVE_FILE, badPath(ENOENT), file);
}

TEST_F(FileSysTest, directoryIsRemovedWhenItIsEmpty) {
    std::string const path = m_folder.makeFolder("dir");
    std::string const file = m_folder.makeFile("dir/file");
    expectRefusal(REMOVE_DIR, reportsOf(ENOTEMPTY, NOT_EMPTY), path);
    EXPECT_TRUE(exists(file));
    EXPECT_FALSE(FileSys::removeFile(file.c_str()));
    EXPECT_FALSE(FileSys::removeDir(path.c_str()));
    EXPECT_FALSE(exists(path));
}

TEST_F(FileSysTest, movedFileKeepsItsContentAndReplacesAnother) {
    std::string const one = m_folder.makeFile("one", "1");
    std::string const other = m_folder.makeFile("other", "2");
    EXPECT_FALSE(FileSys::move(one.c_str(), other.c_str()));
    EXPECT_EQ("1", contentOf(other));
    EXPECT_FALSE(exists(one));
}

TEST_F(FileSysTest, directoryIsMovedWithItsContent) {
    m_folder.makeFolder("dir");
    m_folder.makeFile("dir/file", "x");
    EXPECT_FALSE(FileSys::move(at("dir").c_str(), at("new").c_str()));
    EXPECT_EQ("x", contentOf(at("new/file")));
}

struct RealRefusal : NamedRow {
    Operation operation;
    std::string path;
    ErrnoCase reports;
    char const* new_path = ""; ///< The destination of a move.
};

class FileSysRefusals : public FileSysTest, public testing::WithParamInterface<RealRefusal> {};

TEST_P(FileSysRefusals, areReportedAndChangeNothing) {
    m_folder.makeFile("file", "x");
    m_folder.makeFolder("dir");
    m_folder.makeFolder("full");
    m_folder.makeFile("full/file");
    m_folder.makeLink("link", "a");
    std::string const path = at(GetParam().path);
    s_new_path = at(GetParam().new_path);
    bool const existed = exists(path);
    expectRefusal(GetParam().operation, GetParam().reports, path);
    EXPECT_EQ(existed, exists(path));
    std::ErrorStorage::ack(); // A name that is too long is too long for this question, too.
    EXPECT_EQ("x", contentOf(at("file")));
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysRefusals,
    rowsOf<RealRefusal>({
        {"directoryExists", CREATE_DIR, "dir", reportsOf(EEXIST, EXISTS_ALREADY)},
        {"parentOfADirectoryIsMissing", CREATE_DIR, "none/new", badPath(ENOENT)},
        {"nameIsTooLong", CREATE_DIR, std::string(256, 'a'), badPath(ENAMETOOLONG)},
        // Linux returns EISDIR; other systems may return EPERM.
        {"directoryIsRemovedAsAFile", REMOVE_FILE, "dir", reportsOf(EISDIR, IS_DIRECTORY)},
        {"fileIsRemovedAsADirectory", REMOVE_DIR, "file", badPath(ENOTDIR)},
        {"directoryIsRemovedByItsDot", REMOVE_DIR, "dir/.", reportsOf(EINVAL, unclassified({}))},
        {"fileAsAWorkingDirectory", CHANGE_WD, "file", reportsOf(ENOTDIR, NO_DIRECTORY)},
        {"linkExists", CREATE_LINK, "link", reportsOf(EEXIST, EXISTS_ALREADY)},
        {"fileIsNoLink", READ_LINK, "file", badPath(EINVAL)},
        {"sourceIsMissing", MOVE, "none", badPath(ENOENT), "new"},
        {"parentOfTheDestinationIsMissing", MOVE, "file", badPath(ENOENT), "none/new"},
        {"destinationBelowAFile", MOVE, "file", badPath(ENOTDIR), "full/file/new"},
        {"directoryToAFile", MOVE, "dir", badPath(ENOTDIR), "file"},
        {"fileToADirectory", MOVE, "file", badPath(EISDIR), "dir"},
        {"directoryIntoItself", MOVE, "dir", badPath(EINVAL), "dir/new"},
        {"directoryToAFullOne", MOVE, "dir", reportsOf(ENOTEMPTY, IN_USE), "full"},
        {"directoryByItsDot", MOVE, "dir/.", reportsOf(EBUSY, IN_USE), "new"},
    }),
    byName);

TEST_F(FileSysTest, longPathsOfAMoveAreCutLikeEveryReport) {
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

TEST_F(FileSysTest, workingDirectoryIsChangedForRelativePaths) {
    m_folder.makeFolder("dir");
    m_folder.makeFile("dir/file");
    expectInChild([&] {
        EXPECT_FALSE(FileSys::changeWD(at("dir").c_str()));
        EXPECT_TRUE(exists("file"));
        std::string directory;
        EXPECT_FALSE(FileSys::currentWD(directory));
        EXPECT_EQ(at("dir"), directory);
        EXPECT_FALSE(FileSys::changeWD(".."));
        EXPECT_FALSE(exists("file"));
    });
}

TEST_F(FileSysTest, accessToAMissingWorkingDirectoryIsDenied) {
    std::string const path = at("none");
    EXPECT_TRUE(FileSys::changeWD(path.c_str()));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, "Invalid path specified: " + systemText(ENOENT)},
         {FileAccessErrorId::ACCESS_DENIED, "Access to path '" + path + "' denied"}}));
}

TEST(FileSysEntryPoints, areTheRootAlone) {
    EXPECT_EQ(std::list<std::string>{"/"}, FileSys::getEntryPoints());
    std::list<UnicodeString> points;
    points.emplace_back("old", 4U);
    points.emplace_back("older", 6U);
    FileSys::getEntryPoints(points);
    ASSERT_EQ(1U, points.size());
    EXPECT_STREQ("/", points.front().c_str());
    EXPECT_EQ(2U, points.front().getSize());
    char const* const text = points.front().c_str();
    FileSys::getEntryPoints(points);
    EXPECT_EQ(text, points.front().c_str()) << "it is borrowed from one constant text";
}

TEST_F(FileSysTest, componentLengthOfAFileSystemWithCountsOf64BitsIsReturned) {
    constexpr int NO_RIGHT = 77;
    std::string const mount_point = m_folder.makeFolder("mount");
    for (char const* const limit : {"size=100t", "nr_inodes=5g"}) {
        auto const end = runInChild([&] {
            if (!separateMounts() || !mountMemory(mount_point, limit)) {
                _exit(NO_RIGHT);
            }
            unsigned int length = 0;
            EXPECT_FALSE(FileSys::maxComponentLength(mount_point.c_str(), length));
            EXPECT_EQ(255U, length);
            EXPECT_TRUE(chainIs({}));
        });
        if (end.exit_code == NO_RIGHT) {
            GTEST_SKIP() << "mounting needs a privilege, and " << limit << " a system that takes it";
        }
        EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    }
}

TEST_F(FileSysTest, componentLengthIsTheLimitOfTheFileSystem) {
    struct statvfs info {};
    ASSERT_EQ(0, statvfs(m_folder.getPath().c_str(), &info)) << strerror(errno);
    unsigned int length = 0;
    EXPECT_FALSE(FileSys::maxComponentLength(m_folder.getPath().c_str(), length));
    EXPECT_EQ(info.f_namemax, length);
    EXPECT_FALSE(FileSys::createDir(at(std::string(length, 'a')).c_str()));
    expectRefusal(CREATE_DIR, badPath(ENAMETOOLONG), at(std::string(length + 1, 'a')));
}

struct Variable : NamedRow {
    char const* name;
    char const* (*get)();
    char const* value;
    char const* expected;
};

class FileSysPaths : public testing::TestWithParam<Variable> {};

TEST_P(FileSysPaths, areThoseOfTheEnvironment) {
    expectInChild([] {
        auto const& row = GetParam();
        EXPECT_EQ(0, row.value != nullptr ? setenv(row.name, row.value, 1) : unsetenv(row.name));
        EXPECT_STREQ(row.expected, row.get());
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysPaths,
    rowsOf<Variable>({
        {"temp", "TMPDIR", FileSys::getTempPath, "/some/where", "/some/where"},
        {"emptyTemp", "TMPDIR", FileSys::getTempPath, "", "/tmp"},
        {"noTemp", "TMPDIR", FileSys::getTempPath, nullptr, "/tmp"},
        {"home", "HOME", FileSys::getHomePath, "/home/user", "/home/user"},
        {"emptyHome", "HOME", FileSys::getHomePath, "", ""},
        {"noHome", "HOME", FileSys::getHomePath, nullptr, ""},
    }),
    byName);

TEST_F(FileSysTest, createdLinkHoldsItsTargetEvenIfItIsMissing) {
    EXPECT_FALSE(FileSys::createLink("no/such/file", at("link").c_str()));
    EXPECT_TRUE(S_ISLNK(infoOf(at("link")).st_mode)) << "it is a symbolic link";
    char buffer[64];
    memset(buffer, '#', sizeof buffer);
    unsigned int size = sizeof buffer;
    EXPECT_FALSE(FileSys::readLink(at("link").c_str(), buffer, size));
    EXPECT_EQ(strlen("no/such/file"), size);
    EXPECT_STREQ("no/such/file", buffer);
    EXPECT_EQ('#', buffer[size + 1]) << "behind the NUL nothing is changed";
}

TEST_F(FileSysTest, emptyTargetIsABadPathOfTheLink) {
    EXPECT_TRUE(FileSys::createLink("", at("link").c_str()));
    EXPECT_TRUE(badPath(ENOENT).isPending(at("link")));
}

class FileSysReadLink : public FileSysTest, public testing::WithParamInterface<char const*> {};

TEST_P(FileSysReadLink, cutsTheTargetToTheBufferWithoutAReport) {
    std::string const link = m_folder.makeLink("link", GetParam());
    char buffer[9];
    memset(buffer, '#', sizeof buffer);
    unsigned int size = 8;
    EXPECT_FALSE(FileSys::readLink(link.c_str(), buffer, size));
    EXPECT_EQ(7U, size);
    EXPECT_STREQ("1234567", buffer);
    EXPECT_EQ('#', buffer[8]) << "behind the buffer nothing is changed";
}

INSTANTIATE_TEST_SUITE_P(All, FileSysReadLink, testing::Values("12345678901234567890", "1234567"));

TEST_F(FileSysTest, bufferSizeOfZeroIsTheLargestSize) {
    char buffer[8] = "old";
    {
        Fault const pretended(inject_readlink, PRETEND_LINK);
        unsigned int size = 0;
        EXPECT_FALSE(FileSys::readLink("/some/link", buffer, size));
        EXPECT_EQ(size_t{UINT32_MAX}, s_readlink_size);
        EXPECT_EQ(1U, size);
        EXPECT_STREQ("x", buffer);
    }
    // The system refuses the size, with an error of its choice.
    std::string const link = m_folder.makeLink("link", "target");
    unsigned int size = 0;
    EXPECT_TRUE(FileSys::readLink(link.c_str(), buffer, size));
    EXPECT_EQ(0U, size);
    EXPECT_STREQ("", buffer);
    EXPECT_NE(nullptr, std::ErrorStorage::get());
    std::ErrorStorage::ack();
}

TEST_F(FileSysTest, bufferOfOneByteHasNoRoomForATarget) {
    std::string const link = m_folder.makeLink("link", "target");
    char buffer[2] = "x";
    unsigned int size = 1;
    EXPECT_TRUE(FileSys::readLink(link.c_str(), buffer, size));
    EXPECT_TRUE(badPath(EINVAL).isPending(link));
    EXPECT_EQ(0U, size);
    EXPECT_EQ('\0', buffer[0]);
}

TEST_F(FileSysTest, accessIsSetAsGiven) {
    std::string const path = m_folder.makeFile("file");
    EXPECT_FALSE(FileSys::changeAccess(path.c_str(), FileAccess::owner_all | FileAccess::others_exec));
    EXPECT_EQ(0701U, accessOf(path));
    EXPECT_FALSE(FileSys::changeAccess(path.c_str(), FileAccess::none));
    EXPECT_EQ(0U, accessOf(path));
    EXPECT_FALSE(FileSys::changeAccess(path.c_str(), FileAccess::mask));
    EXPECT_EQ(07777U, accessOf(path));
}

TEST_F(FileSysTest, onlyTheBitsOfTheMaskReachTheSystem) {
    std::string const path = m_folder.makeFile("file");
    EXPECT_FALSE(FileSys::changeAccess(path.c_str(), FileAccess(0xFFFFF000U | 0640U)));
    EXPECT_EQ((0xFFFFF000U & 07777U) | 0640U, s_chmod_mode);
    EXPECT_EQ(0640U, accessOf(path));
}

TEST_F(FileSysTest, accessToTheTargetOfALinkIsChanged) {
    std::string const path = m_folder.makeFile("file");
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileSys::changeAccess(link.c_str(), FileAccess::owner_read));
    EXPECT_EQ(0400U, accessOf(path));
}

class FileSysOwnerTest : public FileSysTest {
protected:
    void SetUp() override {
        VESK_SKIP_UNLESS_ROOT();
        m_path = m_folder.makeFile("file");
    }

    bool change(User const& user, Group const& group) const {
        return FileSys::changeOwnerGroup(m_path, user, group);
    }

    void expectOwner(uid_t user, gid_t group) const {
        struct stat const info = infoOf(m_path);
        EXPECT_EQ(user, info.st_uid);
        EXPECT_EQ(group, info.st_gid);
    }

    std::string m_path;
};

TEST_F(FileSysOwnerTest, idsAreSetWithoutALookUp) {
    Fault const counted(inject_getpwnam_r, 0);
    EXPECT_FALSE(change(User(4711LL), Group(4712LL)));
    expectOwner(4711, 4712);
    EXPECT_EQ(0, counted.getCalls());
}

TEST_F(FileSysOwnerTest, nameIsLookedUpOnceAndItsIdKept) {
    std::string name;
    uid_t id = 0;
    setpwent();
    while (passwd const* const entry = name.empty() ? getpwent() : nullptr) {
        if (entry->pw_uid != 0) {
            name = entry->pw_name;
            id = entry->pw_uid;
        }
    }
    endpwent();
    if (name.empty()) {
        GTEST_SKIP() << "the system knows nobody but root";
    }
    User const user(name);
    EXPECT_FALSE(user.isIdKnown());
    {
        Fault const counted(inject_getpwnam_r, 0);
        Fault const interrupted(inject_chown, EINTR, 1, 3);
        EXPECT_FALSE(change(user, Group(std::string("root"))));
        EXPECT_EQ(4, interrupted.getCalls());
        EXPECT_EQ(1, counted.getCalls());
    }
    expectOwner(id, 0);
    EXPECT_TRUE(user.isIdKnown());
    EXPECT_EQ(id, user.getKnownId());
}

TEST_F(FileSysOwnerTest, groupIsLookedUpByItsNameToo) {
    ASSERT_FALSE(change(User(4711LL), Group(4712LL)));
    Group const group(std::string("root"));
    EXPECT_FALSE(change(User(User::BAD_ID), group));
    expectOwner(4711, 0);
    EXPECT_TRUE(group.isIdKnown());
    EXPECT_EQ(0, group.getKnownId());
}

TEST_F(FileSysOwnerTest, unknownNamesLeaveTheOwnerUnchanged) {
    ASSERT_FALSE(change(User(4711LL), Group(4712LL)));
    User const user(std::string("vesk-no-such-user"));
    Group const group(std::string("vesk-no-such-group"));
    EXPECT_FALSE(change(user, group));
    expectOwner(4711, 4712);
    EXPECT_TRUE(user.isIdKnown()) << "the failed look-up is kept";
    EXPECT_EQ(User::BAD_ID, user.getKnownId());
    EXPECT_TRUE(group.isIdKnown());
    EXPECT_EQ(Group::BAD_ID, group.getKnownId());
}

TEST_F(FileSysOwnerTest, impossibleIdIsRefusedAndNotCut) {
    Fault const counted(inject_chown, 0);
    ErrnoCase const refused = reportsOf(EINVAL, spoiled({}));
    for (long long const id : {1LL << 32, (1LL << 32) + 1, -2LL, std::numeric_limits<long long>::min()}) {
        EXPECT_TRUE(change(User(id), Group(0LL)));
        EXPECT_TRUE(refused.isPending(m_path));
        EXPECT_TRUE(change(User(0LL), Group(id)));
        EXPECT_TRUE(refused.isPending(m_path));
    }
    EXPECT_EQ(0, counted.getCalls());
    EXPECT_FALSE(change(User(0xFFFFFFFELL), Group(0xFFFFFFFELL)));
    expectOwner(0xFFFFFFFE, 0xFFFFFFFE);
}

TEST_F(FileSysOwnerTest, ownerOfTheTargetOfALinkIsChanged) {
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileSys::changeOwnerGroup(link, User(4711LL), Group(4712LL)));
    expectOwner(4711, 4712);
    EXPECT_EQ(0U, infoOf(link).st_uid);
}

} // namespace
