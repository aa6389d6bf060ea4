#include "IpcSupport.h"
#include "support/EventRecorder.h"
#include "support/Privileges.h"
#include "support/Processes.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/ErrorOutput.h>

#include <csignal>
#include <memory>
#include <tuple>
#include <type_traits>

/// What the servers and clients of message queues, semaphores and shared memory have in common: names, errors
/// of opening and creation, removal of names, close, and destruction.

namespace {

using namespace support;
using namespace vesk;
using Strategy = Creatable::CreationStrategy;
using Reports = std::vector<ExpectedReport>;

static_assert(Creatable::CREATE_NEW == 0 && Creatable::OPEN_OR_CREATE == 1 && Creatable::REPLACE == 2);
static_assert(Creatable::TRUNCATE == 3);
static_assert(!std::is_copy_constructible_v<MsgQueueServer> && std::has_virtual_destructor_v<MsgQueueBase>);
static_assert(!std::is_copy_constructible_v<SemaphoreClient> && std::has_virtual_destructor_v<SemaphoreBase>);
static_assert(
    !std::is_copy_constructible_v<SharedMemoryServer> && std::has_virtual_destructor_v<SharedMemoryBase>);
static_assert(
    !std::is_copy_constructible_v<SharedMemoryBase> && !std::is_copy_assignable_v<SharedMemoryBase>);
static_assert(std::is_base_of_v<SharedMemoryBase, SharedMemoryClient>);
static_assert(std::is_base_of_v<SharedMemoryBase, SharedMemoryServer>);
static_assert(sizeof(SemaphoreClient) == 2 * sizeof(void*));
static_assert(sizeof(SharedMemoryClient) == sizeof(SharedMemoryBase));

/// The sizes of objects: the number of messages of a queue, the value of a semaphore, the bytes of memory.
constexpr unsigned int OLD_SIZE = 5;
constexpr unsigned int NEW_SIZE = 2;

/// A server or client. A client ignores strategy and size, and the last two operations are those of a server.
class Object {
public:
    virtual ~Object() = default;
    virtual bool open(char const* name, Strategy strategy, unsigned int size) = 0;
    virtual bool close() = 0;
    virtual bool isValid() const = 0;
    virtual int getCloses() const = 0; ///< The number of calls of its virtual `close`.
    virtual Creatable* asCreatable() = 0;
    virtual bool deleteName() = 0;
};

template <typename T, typename Base>
class ObjectOf final : public Object {
public:
    bool open(char const* name, Strategy strategy, unsigned int size) override {
        if constexpr (std::is_same_v<T, MsgQueueServer>) {
            return m_object.create(name, 16, size, strategy);
        } else if constexpr (IS_SERVER) {
            return m_object.create(name, size, strategy);
        } else if constexpr (std::is_same_v<T, SharedMemoryClient>) {
            return m_object.attach(name, MemMapping::READ | MemMapping::WRITE);
        } else {
            return m_object.attach(name);
        }
    }
    bool close() override { return static_cast<Base&>(m_object).close(); }
    bool isValid() const override { return m_object.isValid(); }
    int getCloses() const override { return m_object.closes; }
    Creatable* asCreatable() override {
        if constexpr (IS_SERVER) {
            return &m_object;
        }
        return nullptr;
    }
    bool deleteName() override {
        if constexpr (IS_SERVER) {
            return m_object.deleteName();
        }
        return true;
    }

private:
    static constexpr bool IS_SERVER = std::is_base_of_v<Creatable, T>;

    struct Watched final : T {
        bool close() override {
            ++closes;
            return T::close();
        }
        int closes = 0;
    };

    Watched m_object;
};

template <typename T, typename Base>
std::unique_ptr<Object> make() {
    return std::make_unique<ObjectOf<T, Base>>();
}

/// One of the six classes and what distinguishes it.
struct Class {
    char const* name;
    IpcKind const* kind;
    std::unique_ptr<Object> (*make)();
    Reports for_empty_name;
    bool (*deleteName)(char const*) = nullptr; ///< Null for clients.
    SysErrorId::Id for_missing_right = SysErrorId::PERMISSION_DENIED;
};

Class const MSG_QUEUE_SERVER{
    "MsgQueueServer", &QUEUE, make<MsgQueueServer, MsgQueueBase>,
    reportsOf({ENOENT, SysErrorId::UNCLASSIFIED}), MsgQueueServer::deleteName};
Class const SEMAPHORE_CREATOR{
    "SemaphoreCreator", &SEMAPHORE, make<SemaphoreCreator, SemaphoreBase>,
    Reports{{SysErrorId::INVALID_PATH}, reportOf(FileAccessErrorId::BAD_PATH, "/")},
    SemaphoreCreator::deleteName};
Class const SHARED_MEMORY_SERVER{
    "SharedMemoryServer", &MEMORY, make<SharedMemoryServer, SharedMemoryBase>,
    reportsOf({EINVAL, SysErrorId::NOT_IMPLEMENTED}), SharedMemoryServer::deleteName};
Class const MSG_QUEUE_CLIENT{
    "MsgQueueClient",
    &QUEUE,
    make<MsgQueueClient, MsgQueueBase>,
    reportsOf({ENOENT, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH}, "/"),
    nullptr,
    SysErrorId::INVALID_PARAMETER};
Class const SEMAPHORE_CLIENT{
    "SemaphoreClient", &SEMAPHORE, make<SemaphoreClient, SemaphoreBase>,
    Reports{{SysErrorId::INVALID_PATH}, reportOf(FileAccessErrorId::BAD_PATH, "")}};
Class const SHARED_MEMORY_CLIENT{
    "SharedMemoryClient", &MEMORY, make<SharedMemoryClient, SharedMemoryBase>,
    reportsOf({EINVAL, SysErrorId::NOT_IMPLEMENTED})};

Class const* const SERVERS[] = {&MSG_QUEUE_SERVER, &SEMAPHORE_CREATOR, &SHARED_MEMORY_SERVER};
Class const* const ALL[] = {&MSG_QUEUE_SERVER, &SEMAPHORE_CREATOR, &SHARED_MEMORY_SERVER,
                            &MSG_QUEUE_CLIENT, &SEMAPHORE_CLIENT,  &SHARED_MEMORY_CLIENT};

class IpcTest : public testing::Test {
protected:
    explicit IpcTest(Class const* tested)
        : m_class(*tested), m_kind(*tested->kind), m_name(m_kind), m_object(tested->make()) {}

    void SetUp() override {
        if (&m_kind == &QUEUE) {
            VESK_SKIP_WITHOUT_QUEUES();
        }
    }

    bool isServer() const { return m_class.deleteName != nullptr; }
    /// A semaphore counts as closed after a failed close.
    bool staysOpen() const { return &m_kind != &SEMAPHORE; }

    bool open(char const* name, Strategy strategy = Creatable::CREATE_NEW) {
        return m_object->open(name, strategy, NEW_SIZE);
    }
    /// Opens the object of the test's name. That of a client is made by another object.
    void openIt() {
        provide(m_name);
        m_descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC); // The number that a queue or memory gets.
        close(m_descriptor);
        ASSERT_FALSE(open(m_name));
        ASSERT_TRUE(m_object->isValid());
    }
    /// Makes the object that a client needs.
    void provide(IpcName const& name) const {
        if (!isServer()) {
            makeOld(name);
        }
    }
    /// Makes an object of the old size with some content, which is closed when the function returns.
    void makeOld(IpcName const& name) const {
        for (Class const* const server : SERVERS) {
            if (server->kind == &m_kind) {
                ASSERT_FALSE(server->make()->open(name, Creatable::CREATE_NEW, OLD_SIZE));
            }
        }
        m_kind.change(name.getSystemName().c_str());
    }
    void setUnlinkOnClose() const { m_object->asCreatable()->setUnlinkOnClose(true); }

    /// Returns the name as reports show it.
    std::string getShown(IpcName const& name) const {
        return &m_class == &SEMAPHORE_CLIENT ? std::string(name) : name.getSystemName();
    }
    testing::AssertionResult isReported(ErrorRow const& row) const {
        return chainIs(reportsOf(row, getShown(m_name)));
    }
    /// The reports of a name that cannot be removed.
    Reports removalReports(int error) const {
        bool const is_semaphore = &m_kind == &SEMAPHORE;
        bool const is_denied = error == EACCES || (error == EPERM && !is_semaphore);
        Reports reports;
        if (is_denied) {
            reports = reportsOf({error, DENIED.id, DENIED.access}, getShown(m_name));
        }
        if (!is_denied || !is_semaphore) {
            ErrorRow const row{error, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED};
            for (ExpectedReport const& report : reportsOf(row, getShown(m_name))) {
                reports.push_back(report);
            }
        }
        return reports;
    }
    /// Does what a failed close of a closed or destroyed object did not. The system counts how often a
    /// process has opened a semaphore.
    void closeForIt() const {
        if (&m_kind == &SEMAPHORE) {
            sem_t* const semaphore = sem_open(m_name.getSystemName().c_str(), 0);
            ASSERT_NE(SEM_FAILED, semaphore);
            EXPECT_EQ(0, sem_close(semaphore));
            EXPECT_EQ(0, sem_close(semaphore));
        } else if (m_object == nullptr || !m_object->isValid()) {
            close(m_descriptor);
        }
    }

    std::string getOldState() const {
        return &m_kind == &QUEUE ? "1 of 5" : &m_kind == &SEMAPHORE ? "6" : "5 bytes: old";
    }
    std::string getNewState() const {
        return &m_kind == &QUEUE ? "0 of 2" : &m_kind == &SEMAPHORE ? "2" : "2 bytes: ";
    }

    Class const& m_class;
    IpcKind const& m_kind;
    IpcName m_name;
    std::unique_ptr<Object> m_object;
    int m_descriptor = -1;
};

struct ClassName {
    std::string operator()(testing::TestParamInfo<Class const*> const& info) const {
        return info.param->name;
    }
};

/// Servers and clients.
class IpcObject : public IpcTest, public testing::WithParamInterface<Class const*> {
protected:
    IpcObject() : IpcTest(GetParam()) {}
};

class IpcServer : public IpcObject {};

struct CloseRow {
    int error;
    bool is_valid_after;
};

struct StrategyRow {
    char const* name;
    int strategy;
    int flags;
};

std::string nameOf(ErrorRow const& row) {
    return strerrorname_np(row.error);
}
std::string nameOf(int error) {
    return strerrorname_np(error);
}
std::string nameOf(CloseRow const& row) {
    return strerrorname_np(row.error);
}
std::string nameOf(StrategyRow const& row) {
    return row.name;
}

/// Names a case by its class and its row.
struct CaseName {
    template <typename Row>
    std::string operator()(testing::TestParamInfo<std::tuple<Class const*, Row>> const& info) const {
        return std::get<0>(info.param)->name + ("_" + nameOf(std::get<1>(info.param)));
    }
};

/// A class and a row of one of its tables.
template <typename Row>
class IpcRows : public IpcTest, public testing::WithParamInterface<std::tuple<Class const*, Row>> {
protected:
    using Case = testing::WithParamInterface<std::tuple<Class const*, Row>>;

    IpcRows() : IpcTest(std::get<0>(Case::GetParam())) {}
    static Row const& row() { return std::get<1>(Case::GetParam()); }
};

using OpenCase = std::tuple<Class const*, ErrorRow>;

/// Returns one case for each error of the tables of several classes.
std::vector<OpenCase> casesOf(std::vector<std::pair<Class const*, std::vector<ErrorRows>>> const& tables) {
    std::vector<OpenCase> cases;
    for (auto const& [tested, table] : tables) {
        for (ErrorRow const& row : rowsOf(table)) {
            cases.emplace_back(tested, row);
        }
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(All, IpcObject, testing::ValuesIn(ALL), ClassName());
INSTANTIATE_TEST_SUITE_P(All, IpcServer, testing::ValuesIn(SERVERS), ClassName());

// ---- names ----

struct NameRow {
    char const* name;
    ExpectedReport report;
};

NameRow const IMPOSSIBLE_NAMES[] = {
    {nullptr, reportOf(CommonErrorId::INVALID_ARGUMENT, "null ptr. or zero size turned in")},
    {"/leading", reportOf(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")},
    {"a/b", reportOf(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")},
    {"trailing/", reportOf(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")},
    {"255 characters", reportOf(CommonErrorId::UNSUPPORTED_VALUE, "given IPC name is too long")},
};

char const* nameOf(NameRow const& row) {
    static std::string const s_long(255, 'n');
    return row.report.id == CommonErrorId::UNSUPPORTED_VALUE ? s_long.c_str() : row.name;
}

TEST_P(IpcObject, impossibleNamesAreRefusedWithoutACall) {
    Fault const opens(m_kind.open, 0);
    for (NameRow const& row : IMPOSSIBLE_NAMES) {
        EXPECT_TRUE(open(nameOf(row), Creatable::REPLACE));
        EXPECT_TRUE(chainIs({row.report})) << row.name;
        EXPECT_FALSE(m_object->isValid());
    }
    EXPECT_EQ(0, opens.getCalls());
}

TEST_P(IpcServer, impossibleNamesCannotBeDeleted) {
    Fault const removals(m_kind.unlink, 0);
    setUnlinkOnClose();
    for (NameRow const& row : IMPOSSIBLE_NAMES) {
        EXPECT_TRUE(m_class.deleteName(nameOf(row)));
        EXPECT_TRUE(chainIs({row.report})) << row.name;
        EXPECT_TRUE(open(nameOf(row)));
        EXPECT_TRUE(chainIs({row.report})) << row.name;
        EXPECT_FALSE(m_object->close());
    }
    EXPECT_EQ(0, removals.getCalls());
}

TEST_P(IpcObject, emptyNameIsRefusedByTheSystem) {
    EXPECT_TRUE(open(""));
    EXPECT_EQ("/", m_kind.last_open.name);
    EXPECT_TRUE(chainIs(m_class.for_empty_name));
    EXPECT_FALSE(m_object->isValid());
}

TEST_P(IpcObject, nameOf254CharactersIsPassedToTheSystem) {
    IpcName const name(m_kind, 254);
    if (&m_kind == &SEMAPHORE) { // The C library adds a prefix to the name of a semaphore.
        EXPECT_TRUE(open(name));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::INVALID_PATH}, reportOf(FileAccessErrorId::BAD_PATH, getShown(name).c_str())}));
        return;
    }
    provide(name);
    EXPECT_FALSE(open(name));
    EXPECT_EQ(name.getSystemName(), m_kind.last_open.name);
    EXPECT_EQ(isServer() ? getNewState() : getOldState(), name.getState());
}

// ---- opening ----

TEST_P(IpcObject, newObjectIsClosed) {
    EXPECT_FALSE(m_object->isValid());
    EXPECT_TRUE(!isServer() || !m_object->asCreatable()->isUnlinkOnClose());
}

TEST_P(IpcObject, interruptedOpeningIsRepeated) {
    provide(m_name);
    Fault const fault(m_kind.open, EINTR, 1, 3);
    EXPECT_FALSE(open(m_name));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(m_object->isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_P(IpcObject, openObjectIsClosedBeforeAnotherIsOpened) {
    IpcName const second(m_kind);
    provide(second);
    openIt();
    EXPECT_EQ(0, m_object->getCloses());
    Fault const closes(m_kind.close, 0);
    EXPECT_FALSE(open(second));
    EXPECT_EQ(1, m_object->getCloses());
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_TRUE(m_name.exists());
    EXPECT_TRUE(second.exists());
    EXPECT_TRUE(open("a/b"));
    EXPECT_TRUE(chainIs({{CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_EQ(2, m_object->getCloses());
    EXPECT_FALSE(m_object->isValid());
}

TEST_P(IpcObject, openingEndsIfTheOpenObjectCannotBeClosed) {
    IpcName const second(m_kind);
    openIt();
    Fault const opens(m_kind.open, 0);
    EXPECT_TRUE(failOnce(m_kind.close, EIO, [&] { return open(second); }));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EIO));
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_EQ(staysOpen(), m_object->isValid());
    if (isServer() && staysOpen()) {
        EXPECT_FALSE(m_object->deleteName());
        EXPECT_FALSE(m_name.exists()) << "the open object has kept its name";
    }
    closeForIt();
    EXPECT_FALSE(m_object->close());
    provide(second);
    EXPECT_FALSE(open(second)) << "another attempt continues";
}

using IpcOpenRows = IpcRows<ErrorRow>;

TEST_P(IpcOpenRows, failureIsReported) {
    EXPECT_TRUE(failOnce(m_kind.open, row().error, [&] { return open(m_name); }));
    EXPECT_TRUE(isReported(row()));
    EXPECT_FALSE(m_object->isValid());
    EXPECT_FALSE(m_name.exists());
}

INSTANTIATE_TEST_SUITE_P(
    All, IpcOpenRows,
    testing::ValuesIn(casesOf(
        {{&MSG_QUEUE_SERVER,
          {{{ENOENT, ENOMEM, EPERM}, SysErrorId::UNCLASSIFIED},
           {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
           {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS},
           {{EINVAL}, SysErrorId::INVALID_PARAMETER},
           {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
           {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE},
           {{ENAMETOOLONG}, SysErrorId::PATH_TOO_LONG, FileAccessErrorId::BAD_PATH}}},
         {&MSG_QUEUE_CLIENT,
          {{{ENOENT}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
           {{EACCES}, SysErrorId::INVALID_PARAMETER, FileAccessErrorId::ACCESS_DENIED},
           {{EEXIST, EINVAL, ENOSPC, ENOMEM, EPERM}, SysErrorId::UNCLASSIFIED},
           {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
           {{ENAMETOOLONG}, SysErrorId::PATH_TOO_LONG, FileAccessErrorId::BAD_PATH}}},
         {&SEMAPHORE_CREATOR,
          {{{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
           {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS},
           {{EINVAL, ENAMETOOLONG}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
           {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
           {{ENOSPC}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
           {{ENOENT, ENOMEM}, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED}}},
         {&SEMAPHORE_CLIENT,
          {{{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
           {{ENOENT, EINVAL, ENAMETOOLONG}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
           {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
           {{EEXIST, ENOSPC}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
           {{ENOMEM, EPERM}, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED}}},
         {&SHARED_MEMORY_SERVER,
          {{{ENOENT, EPERM, ENOMEM, EROFS}, SysErrorId::UNCLASSIFIED},
           {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
           {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS},
           {{EINVAL, ENOTSUP}, SysErrorId::NOT_IMPLEMENTED},
           {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
           {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE},
           {{EPIPE, ENOSYS}, SysErrorId::NO_DEVICE},
           {{ENAMETOOLONG}, SysErrorId::PATH_TOO_LONG, FileAccessErrorId::BAD_PATH}}},
         {&SHARED_MEMORY_CLIENT,
          {{{ENOENT}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
           {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
           {{EEXIST, ENOSPC, EPIPE, ENOSYS, EPERM, ENOMEM}, SysErrorId::UNCLASSIFIED},
           {{EINVAL, ENOTSUP}, SysErrorId::NOT_IMPLEMENTED},
           {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
           {{ENAMETOOLONG}, SysErrorId::PATH_TOO_LONG, FileAccessErrorId::BAD_PATH}}}})),
    CaseName());

// ---- strategies ----

using IpcStrategies = IpcRows<StrategyRow>;

TEST_P(IpcStrategies, createAMissingObjectWithTheFlagsOfTheStrategy) {
    Fault const removals(m_kind.unlink, 0);
    EXPECT_FALSE(open(m_name, static_cast<Strategy>(row().strategy)));
    EXPECT_EQ(row().flags, m_kind.last_open.flags);
    EXPECT_EQ(0600U, m_kind.last_open.mode);
    EXPECT_EQ(m_name.getSystemName(), m_kind.last_open.name);
    EXPECT_TRUE(m_object->isValid());
    EXPECT_EQ(getNewState(), m_name.getState());
    EXPECT_EQ(0, removals.getCalls());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, IpcStrategies,
    testing::ValuesIn(std::vector<std::tuple<Class const*, StrategyRow>>{
        {&MSG_QUEUE_SERVER, {"createNew", Creatable::CREATE_NEW, O_CREAT | O_EXCL | O_RDWR}},
        {&MSG_QUEUE_SERVER, {"openOrCreate", Creatable::OPEN_OR_CREATE, O_CREAT | O_RDWR}},
        {&MSG_QUEUE_SERVER, {"replace", Creatable::REPLACE, O_CREAT | O_EXCL | O_RDWR}},
        {&SEMAPHORE_CREATOR, {"createNew", Creatable::CREATE_NEW, O_CREAT | O_EXCL}},
        {&SEMAPHORE_CREATOR, {"openOrCreate", Creatable::OPEN_OR_CREATE, O_CREAT}},
        {&SEMAPHORE_CREATOR, {"replace", Creatable::REPLACE, O_CREAT | O_EXCL}},
        {&SHARED_MEMORY_SERVER, {"createNew", Creatable::CREATE_NEW, 0xC2}},
        {&SHARED_MEMORY_SERVER, {"openOrCreate", Creatable::OPEN_OR_CREATE, 0x42}},
        {&SHARED_MEMORY_SERVER, {"replace", Creatable::REPLACE, 0xC2}},
        {&SHARED_MEMORY_SERVER, {"truncate", Creatable::TRUNCATE, 0x242}},
        {&SHARED_MEMORY_SERVER, {"unknown99", 99, 0x42}},
        {&SHARED_MEMORY_SERVER, {"unknownNegative", -1, 0x42}},
        {&SHARED_MEMORY_SERVER, {"unknown4", 4, 0x42}}}),
    CaseName());

using IpcUnsupportedStrategies = IpcRows<int>;

TEST_P(IpcUnsupportedStrategies, areRefusedWithoutACall) {
    Fault const opens(m_kind.open, 0);
    EXPECT_TRUE(open(m_name, static_cast<Strategy>(row())));
    EXPECT_TRUE(chainIs({reportOf(CommonErrorId::CONTRACT_BROKEN, "Unsupported strategy passed")}));
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_FALSE(m_object->isValid());
}

INSTANTIATE_TEST_SUITE_P(
    All, IpcUnsupportedStrategies,
    testing::Combine(testing::Values(&MSG_QUEUE_SERVER, &SEMAPHORE_CREATOR), testing::Values(3, 99, -1)));

TEST_P(IpcServer, nameIsCheckedBeforeTheStrategy) {
    EXPECT_TRUE(open("a/b", static_cast<Strategy>(99)));
    EXPECT_TRUE(chainIs({reportOf(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")}));
}

TEST_P(IpcServer, existingNameIsRefusedAndKeptByTheStrategyForNewObjects) {
    makeOld(m_name);
    Fault const removals(m_kind.unlink, 0);
    setUnlinkOnClose();
    EXPECT_TRUE(open(m_name));
    EXPECT_TRUE(isReported(EXISTING));
    EXPECT_FALSE(m_object->isValid());
    EXPECT_FALSE(m_object->close());
    EXPECT_FALSE(m_object->deleteName());
    EXPECT_EQ(0, removals.getCalls()) << "the name belongs to another object";
    EXPECT_EQ(getOldState(), m_name.getState());
}

TEST_P(IpcServer, existingObjectIsOpenedAsItIs) {
    makeOld(m_name);
    EXPECT_FALSE(open(m_name, Creatable::OPEN_OR_CREATE));
    EXPECT_EQ(getOldState(), m_name.getState());
    EXPECT_TRUE(chainIs({}));
}

TEST_P(IpcServer, replacementIsRepeatedIfTheNameAppearsAndDisappearsMeanwhile) {
    Fault const opens(m_kind.open, EEXIST, 1, 3);
    Fault const removals(m_kind.unlink, 0);
    EXPECT_FALSE(open(m_name, Creatable::REPLACE));
    EXPECT_EQ(4, opens.getCalls());
    EXPECT_EQ(3, removals.getCalls()) << "a missing name is no failure";
    EXPECT_TRUE(chainIs({}));
}

TEST_P(IpcServer, replacementRemovesNothingAfterAnotherFailure) {
    makeOld(m_name);
    Fault const fault(m_kind.open, EACCES);
    Fault const removals(m_kind.unlink, 0);
    EXPECT_TRUE(open(m_name, Creatable::REPLACE));
    EXPECT_TRUE(isReported(DENIED));
    EXPECT_EQ(0, removals.getCalls());
}

// ---- close ----

TEST_P(IpcObject, closesOnlyOnce) {
    openIt();
    Fault const closes(m_kind.close, 0);
    EXPECT_FALSE(m_object->close());
    EXPECT_FALSE(m_object->isValid());
    EXPECT_FALSE(m_object->close());
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_TRUE(m_name.exists());
    EXPECT_TRUE(chainIs({}));
}

using IpcCloseRows = IpcRows<CloseRow>;

TEST_P(IpcCloseRows, failureIsReportedOnTopOfWhatIsPending) {
    openIt();
    std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::INPUT_OUTPUT, "earlier");
    EXPECT_TRUE(failOnce(m_kind.close, row().error, [&] { return m_object->close(); }));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INPUT_OUTPUT},
         {SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(row().error))}}));
    EXPECT_EQ(row().is_valid_after, m_object->isValid());
    Fault const closes(m_kind.close, 0);
    EXPECT_FALSE(m_object->close());
    EXPECT_EQ(row().is_valid_after ? 1 : 0, closes.getCalls());
    closeForIt();
}

INSTANTIATE_TEST_SUITE_P(
    MsgQueue, IpcCloseRows,
    testing::Combine(
        testing::Values(&MSG_QUEUE_SERVER, &MSG_QUEUE_CLIENT),
        testing::Values(CloseRow{EIO, true}, CloseRow{EBADF, false})),
    CaseName());
INSTANTIATE_TEST_SUITE_P(
    Semaphore, IpcCloseRows,
    testing::Combine(
        testing::Values(&SEMAPHORE_CREATOR, &SEMAPHORE_CLIENT),
        testing::Values(CloseRow{EINTR, false}, CloseRow{EINVAL, false})),
    CaseName());
INSTANTIATE_TEST_SUITE_P(
    SharedMemory, IpcCloseRows,
    testing::Combine(
        testing::Values(&SHARED_MEMORY_SERVER, &SHARED_MEMORY_CLIENT),
        testing::Values(
            CloseRow{EIO, true}, CloseRow{ENOSPC, true}, CloseRow{EDQUOT, true}, CloseRow{EBADF, false})),
    CaseName());

class IpcInterruptedClose : public IpcObject {};

TEST_P(IpcInterruptedClose, isRepeated) {
    openIt();
    Fault const fault(m_kind.close, EINTR, 1, 3);
    EXPECT_FALSE(m_object->close());
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(m_object->isValid());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, IpcInterruptedClose,
    testing::Values(&MSG_QUEUE_SERVER, &SHARED_MEMORY_SERVER, &MSG_QUEUE_CLIENT, &SHARED_MEMORY_CLIENT),
    ClassName());

TEST_P(IpcServer, closedObjectKeepsItsNameExceptForSemaphores) {
    for (bool const by_close : {false, true}) {
        ASSERT_FALSE(open(m_name, Creatable::REPLACE));
        EXPECT_FALSE(m_object->close());
        EXPECT_EQ(getNewState(), m_name.getState());
        m_object->asCreatable()->setUnlinkOnClose(by_close);
        EXPECT_FALSE(by_close ? m_object->close() : m_object->deleteName());
        EXPECT_EQ(&m_kind == &SEMAPHORE, m_name.exists());
    }
}

TEST_P(IpcServer, closeRemovesTheNameOnRequest) {
    setUnlinkOnClose();
    EXPECT_TRUE(m_object->asCreatable()->isUnlinkOnClose());
    openIt();
    EXPECT_FALSE(m_object->close());
    EXPECT_FALSE(m_object->isValid());
    EXPECT_FALSE(m_name.exists());
    Fault const removals(m_kind.unlink, 0);
    EXPECT_FALSE(m_object->close());
    EXPECT_EQ(0, removals.getCalls());
}

TEST_P(IpcServer, closeOfAnObjectThatWasNeverOpenMakesNoCall) {
    setUnlinkOnClose();
    Fault const removals(m_kind.unlink, 0);
    Fault const closes(m_kind.close, 0);
    EXPECT_FALSE(m_object->close());
    EXPECT_FALSE(m_object->deleteName());
    EXPECT_EQ(0, removals.getCalls() + closes.getCalls());
}

TEST_P(IpcServer, anotherCreationRemovesTheOldNameOnRequest) {
    IpcName const second(m_kind);
    setUnlinkOnClose();
    openIt();
    EXPECT_FALSE(open(second));
    EXPECT_FALSE(m_name.exists());
    EXPECT_TRUE(second.exists());
}

TEST_P(IpcServer, anotherCreationEndsIfTheOldNameCannotBeRemovedAndClosesTheOldObject) {
    IpcName const second(m_kind);
    setUnlinkOnClose();
    openIt();
    EXPECT_TRUE(failOnce(m_kind.unlink, EIO, [&] { return open(second); }));
    EXPECT_TRUE(chainIs(removalReports(EIO)));
    EXPECT_FALSE(m_object->isValid());
    EXPECT_TRUE(m_name.exists());
    EXPECT_FALSE(second.exists());
}

TEST_P(IpcServer, closeThatCannotRemoveTheNameFailsAndClosesTheObject) {
    for (int const error : {EIO, EACCES}) {
        setUnlinkOnClose();
        ASSERT_FALSE(open(m_name, Creatable::REPLACE));
        EXPECT_TRUE(failOnce(m_kind.unlink, error, [&] { return m_object->close(); }));
        EXPECT_TRUE(chainIs(removalReports(error)));
        EXPECT_FALSE(m_object->isValid());
        EXPECT_TRUE(m_name.exists());
        EXPECT_FALSE(m_object->close()) << "another attempt removes the name that is still known";
        EXPECT_EQ(&m_kind == &SEMAPHORE, m_name.exists());
    }
}

TEST_P(IpcServer, bothFailuresOfACloseAreReportedInOneChain) {
    setUnlinkOnClose();
    openIt();
    {
        Fault const removal(m_kind.unlink, EIO);
        Fault const closing(m_kind.close, ENOMEM);
        EXPECT_TRUE(m_object->close());
    }
    Reports expected = removalReports(EIO);
    expected.push_back(reportsOf({ENOMEM, SysErrorId::SPOILED_INTEGRITY})[0]);
    EXPECT_TRUE(chainIs(expected));
    EXPECT_EQ(staysOpen(), m_object->isValid());
    closeForIt();
    EXPECT_FALSE(m_object->close());
}

TEST_P(IpcServer, failedCloseStillRemovesTheNameOnRequest) {
    setUnlinkOnClose();
    openIt();
    sem_t* const kept = sem_open(m_name.getSystemName().c_str(), 0); // Keeps a semaphore after its removal.
    EXPECT_TRUE(failOnce(m_kind.close, EIO, [&] { return m_object->close(); }));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EIO));
    EXPECT_FALSE(m_name.exists());
    EXPECT_EQ(staysOpen(), m_object->isValid());
    if (kept != SEM_FAILED) {
        EXPECT_EQ(0, sem_close(kept));
        EXPECT_EQ(0, sem_close(kept));
    }
}

// ---- destructors ----

TEST_P(IpcServer, destructorRemovesTheNameOnRequestExceptForQueues) {
    EventRecorder const recorder;
    for (bool const unlinks : {false, true}) {
        ASSERT_FALSE(open(m_name, Creatable::REPLACE));
        m_object->asCreatable()->setUnlinkOnClose(unlinks);
        m_object.reset();
        EXPECT_EQ(!unlinks || &m_kind == &QUEUE, m_name.exists());
        m_object = m_class.make();
    }
    EXPECT_EQ("", recorder.getText());
}

TEST_P(IpcServer, destructorOfAClosedObjectRemovesNoName) {
    openIt();
    EXPECT_FALSE(m_object->close());
    setUnlinkOnClose();
    m_object.reset();
    EXPECT_TRUE(m_name.exists());
}

TEST_P(IpcObject, destructorOfAClosedObjectMakesNoCall) {
    EventRecorder const recorder;
    Fault const closes(m_kind.close, 0);
    m_object.reset();
    EXPECT_EQ(0, closes.getCalls());
    EXPECT_EQ("", recorder.getText());
}

/// What the destructors of some classes warn of when a call fails.
struct DestructorRow {
    Class const* tested;
    bool unlinks; ///< Whether the removal of the name fails, and not the close.
    std::vector<std::string> classes;
    char const* text;
};

class IpcDestructorRows : public IpcTest, public testing::WithParamInterface<DestructorRow> {
protected:
    IpcDestructorRows() : IpcTest(GetParam().tested) {}
};

TEST_P(IpcDestructorRows, failureIsAWarningAndAcknowledged) {
    EventRecorder const recorder;
    openIt();
    if (GetParam().unlinks) {
        setUnlinkOnClose();
    }
    {
        size_t const calls = GetParam().unlinks ? 1 : GetParam().classes.size();
        Fault const fault(GetParam().unlinks ? m_kind.unlink : m_kind.close, EIO, 1, Fault::FOREVER);
        m_object.reset();
        EXPECT_EQ(static_cast<int>(calls), fault.getCalls());
    }
    std::string expected;
    for (std::string const& name : GetParam().classes) {
        expected += expected.empty() ? "" : "\n";
        expected += "WARNING framework/src/vesk/posix/" + name + " ~" + name + ": " + GetParam().text;
    }
    EXPECT_EQ(expected, recorder.getText());
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(m_name.exists());
    if (!GetParam().unlinks) {
        closeForIt();
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, IpcDestructorRows,
    testing::ValuesIn(std::vector<DestructorRow>{
        {&MSG_QUEUE_SERVER, false, {"MsgQueueBase"}, "error closing message queue"},
        {&MSG_QUEUE_CLIENT, false, {"MsgQueueBase"}, "error closing message queue"},
        {&SEMAPHORE_CREATOR, false, {"SemaphoreCreator"}, "error closing semaphore"},
        {&SEMAPHORE_CREATOR, true, {"SemaphoreCreator"}, "error closing semaphore"},
        {&SEMAPHORE_CLIENT, false, {"SemaphoreBase"}, "error closing semaphore!"},
        {&SHARED_MEMORY_SERVER,
         false,
         {"SharedMemoryServer", "SharedMemoryBase"},
         "Error closing SharedMemory"},
        {&SHARED_MEMORY_SERVER, true, {"SharedMemoryServer"}, "Error closing SharedMemory"},
        {&SHARED_MEMORY_CLIENT, false, {"SharedMemoryBase"}, "Error closing SharedMemory"}}),
    [](auto const& row) {
        return row.param.tested->name + std::string(row.param.unlinks ? "_unlink" : "_close");
    });

// ---- removal of names ----

TEST_P(IpcServer, deletesItsNameOnceAndKeepsTheObject) {
    openIt();
    EXPECT_FALSE(m_object->deleteName());
    EXPECT_FALSE(m_name.exists());
    EXPECT_TRUE(m_object->isValid());
    Fault const removals(m_kind.unlink, 0);
    EXPECT_FALSE(m_object->deleteName());
    EXPECT_EQ(0, removals.getCalls());
    Fault const closes(m_kind.close, 0);
    EXPECT_FALSE(m_object->close());
    EXPECT_EQ(1, closes.getCalls());
}

TEST_P(IpcServer, deletedNameIsNotDeletedAgainIfAnotherObjectHasIt) {
    setUnlinkOnClose();
    openIt();
    EXPECT_FALSE(m_object->deleteName());
    makeOld(m_name);
    EXPECT_FALSE(m_object->deleteName());
    EXPECT_FALSE(m_object->close());
    EXPECT_EQ(getOldState(), m_name.getState());
}

TEST_P(IpcServer, deletingAMissingNameSucceeds) {
    EXPECT_FALSE(m_class.deleteName(m_name));
    openIt();
    EXPECT_FALSE(m_class.deleteName(m_name));
    EXPECT_FALSE(m_name.exists());
    EXPECT_FALSE(m_object->deleteName());
    EXPECT_TRUE(chainIs({}));
}

using IpcRemovalRows = IpcRows<int>;

TEST_P(IpcRemovalRows, failureOpensAChainAndKeepsTheName) {
    openIt();
    std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::INPUT_OUTPUT, "earlier");
    {
        Fault const fault(m_kind.unlink, row(), 1, 2);
        EXPECT_TRUE(m_object->deleteName());
        EXPECT_TRUE(chainIs(removalReports(row())));
        EXPECT_TRUE(m_class.deleteName(m_name));
        EXPECT_TRUE(chainIs(removalReports(row())));
        EXPECT_EQ(2, fault.getCalls()) << "nothing is repeated";
    }
    EXPECT_TRUE(m_name.exists());
    EXPECT_FALSE(m_object->deleteName()) << "another attempt succeeds";
    EXPECT_FALSE(m_name.exists());
}

TEST_P(IpcRemovalRows, failureEndsAReplacement) {
    makeOld(m_name);
    Fault const opens(m_kind.open, 0);
    Fault const fault(m_kind.unlink, row());
    EXPECT_TRUE(open(m_name, Creatable::REPLACE));
    EXPECT_EQ(1, opens.getCalls());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(removalReports(row()))) << "the refused creation is acknowledged";
    EXPECT_FALSE(m_object->isValid());
    EXPECT_EQ(getOldState(), m_name.getState());
}

INSTANTIATE_TEST_SUITE_P(
    All, IpcRemovalRows,
    testing::Combine(
        testing::ValuesIn(SERVERS), testing::Values(EACCES, EPERM, EIO, EINTR, ENAMETOOLONG, EINVAL)),
    CaseName());

// ---- processes ----

TEST_P(IpcServer, objectOutlivesAnOwnerThatCrashed) {
    Process owner([&] {
        setUnlinkOnClose();
        EXPECT_FALSE(m_object->open(m_name, Creatable::CREATE_NEW, OLD_SIZE));
        m_kind.change(m_name.getSystemName().c_str());
        raise(SIGKILL);
    });
    EXPECT_EQ(-1, owner.join());
    EXPECT_TRUE(open(m_name));
    EXPECT_TRUE(chainIs({{SysErrorId::FILE_EXISTS}, {FileAccessErrorId::ALREADY_EXISTS}}));
    EXPECT_FALSE(open(m_name, Creatable::OPEN_OR_CREATE));
    EXPECT_EQ(getOldState(), m_name.getState());
    EXPECT_FALSE(open(m_name, Creatable::REPLACE));
    EXPECT_EQ(getNewState(), m_name.getState());
}

TEST_P(IpcServer, objectOfAnotherUserIsInaccessible) {
    VESK_SKIP_UNLESS_ROOT();
    makeOld(m_name);
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        for (Strategy const strategy : {Creatable::OPEN_OR_CREATE, Creatable::TRUNCATE}) {
            bool const unsupported = strategy == Creatable::TRUNCATE && &m_kind != &MEMORY;
            EXPECT_TRUE(unsupported || open(m_name, strategy));
            EXPECT_TRUE(unsupported || isReported(DENIED));
        }
        EXPECT_TRUE(open(m_name));
        EXPECT_TRUE(isReported(EXISTING));
        EXPECT_TRUE(open(m_name, Creatable::REPLACE));
        EXPECT_TRUE(chainIs(removalReports(EACCES)));
        EXPECT_TRUE(m_class.deleteName(m_name));
        EXPECT_TRUE(chainIs(removalReports(EACCES)));
        EXPECT_FALSE(m_object->isValid());
    });
    EXPECT_EQ(getOldState(), m_name.getState());
}

TEST_P(IpcObject, existingObjectOfAnotherUserCannotBeOpened) {
    VESK_SKIP_UNLESS_ROOT();
    makeOld(m_name);
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        EXPECT_TRUE(open(m_name, Creatable::OPEN_OR_CREATE));
        EXPECT_TRUE(isReported({EACCES, m_class.for_missing_right, FileAccessErrorId::ACCESS_DENIED}));
        EXPECT_FALSE(m_object->isValid());
    });
}

// ---- clients ----

class IpcClient : public IpcObject {};

INSTANTIATE_TEST_SUITE_P(
    All, IpcClient, testing::Values(&MSG_QUEUE_CLIENT, &SEMAPHORE_CLIENT, &SHARED_MEMORY_CLIENT),
    ClassName());

TEST_P(IpcClient, missingObjectIsABadPathAndIsNotCreated) {
    EXPECT_TRUE(open(m_name));
    EXPECT_TRUE(isReported(MISSING));
    EXPECT_FALSE(m_object->isValid());
    EXPECT_FALSE(m_name.exists());
}

// ---- the classes ----

TEST(IpcSlots, closeFollowsTheDestructors) {
    EXPECT_EQ(2, getSlot(&MsgQueueBase::close));
    EXPECT_EQ(2, getSlot(&SemaphoreBase::close));
    EXPECT_EQ(2, getSlot(&SharedMemoryBase::close));
    EXPECT_EQ(2, getSlot(&SharedMemoryServer::close));
}

} // namespace
