#include "IpcSupport.h"
#include "support/Processes.h"
#include "support/VtableSlot.h"

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

/// A server or client. A client ignores strategy and size, and has no `creatable` and no `deleteName`.
struct Object {
    std::function<bool(char const* name, Strategy strategy, unsigned int size)> open;
    std::function<bool()> close;
    std::function<bool()> isValid;
    std::function<int()> getCloses; ///< Returns the number of calls of its virtual `close`.
    Creatable* creatable = nullptr;
    std::function<bool()> deleteName;
};

template <typename T, typename Base>
std::unique_ptr<Object> make() {
    struct Watched final : T {
        bool close() override {
            ++closes;
            return T::close();
        }
        int closes = 0;
    };
    auto const it = std::make_shared<Watched>();
    auto object = std::make_unique<Object>();
    object->open =
        [it](char const* name, [[maybe_unused]] Strategy strategy, [[maybe_unused]] unsigned int size) {
            if constexpr (std::is_same_v<T, MsgQueueServer>) {
                return it->create(name, 16, size, strategy);
            } else if constexpr (std::is_base_of_v<Creatable, T>) {
                return it->create(name, size, strategy);
            } else if constexpr (std::is_same_v<T, SharedMemoryClient>) {
                return it->attach(name, MemMapping::READ | MemMapping::WRITE);
            } else {
                return it->attach(name);
            }
        };
    object->close = [it] { return static_cast<Base&>(*it).close(); };
    object->isValid = [it] { return it->isValid(); };
    object->getCloses = [it] { return it->closes; };
    if constexpr (std::is_base_of_v<Creatable, T>) {
        object->creatable = it.get();
        object->deleteName = [it] { return it->deleteName(); };
    }
    return object;
}

/// One of the six classes and what distinguishes it.
struct Class {
    char const* name;
    IpcKind const* kind;
    std::unique_ptr<Object> (*make)();
    Reports for_empty_name;
    bool (*deleteName)(char const*) = nullptr; ///< Null for clients.
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
    "MsgQueueClient", &QUEUE, make<MsgQueueClient, MsgQueueBase>,
    reportsOf({ENOENT, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH}, "/")};
Class const SEMAPHORE_CLIENT{
    "SemaphoreClient", &SEMAPHORE, make<SemaphoreClient, SemaphoreBase>,
    Reports{{SysErrorId::INVALID_PATH}, reportOf(FileAccessErrorId::BAD_PATH, "")}};
Class const SHARED_MEMORY_CLIENT{
    "SharedMemoryClient", &MEMORY, make<SharedMemoryClient, SharedMemoryBase>,
    reportsOf({EINVAL, SysErrorId::NOT_IMPLEMENTED})};

Class const* const SERVERS[] = {&MSG_QUEUE_SERVER, &SEMAPHORE_CREATOR, &SHARED_MEMORY_SERVER};
Class const* const ALL[] = {&MSG_QUEUE_SERVER, &SEMAPHORE_CREATOR, &SHARED_MEMORY_SERVER,
                            &MSG_QUEUE_CLIENT, &SEMAPHORE_CLIENT,  &SHARED_MEMORY_CLIENT};

Reports join(Reports first, Reports const& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

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
        noteDescriptor();
        ASSERT_FALSE(open(m_name));
        ASSERT_TRUE(m_object->isValid());
    }
    /// Notes the number that the queue or memory gets which is opened next.
    void noteDescriptor() {
        m_descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        close(m_descriptor);
    }
    /// Makes the object that a client needs.
    void provide(IpcName const& name) const {
        if (!isServer() && !name.exists()) {
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
    void setUnlinkOnClose() const { m_object->creatable->setUnlinkOnClose(true); }

    /// Returns the name as reports show it.
    std::string getShown(IpcName const& name) const {
        return &m_class == &SEMAPHORE_CLIENT ? std::string(name) : name.getSystemName();
    }
    testing::AssertionResult isReported(ErrnoCase const& row) const {
        return chainIs(reportsOf(row, getShown(m_name)));
    }
    /// The reports of a name that cannot be removed.
    Reports removalReports(int error) const {
        bool const is_semaphore = &m_kind == &SEMAPHORE;
        bool const is_denied = error == EACCES || (error == EPERM && !is_semaphore);
        Reports const denied = reportsOf({error, DENIED.cause, DENIED.meaning}, getShown(m_name));
        Reports const other =
            reportsOf({error, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED}, getShown(m_name));
        return !is_denied ? other : is_semaphore ? denied : join(denied, other);
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

/// Servers and clients.
class IpcObject : public IpcTest, public testing::WithParamInterface<Class const*> {
protected:
    IpcObject() : IpcTest(GetParam()) {}
};

class IpcServer : public IpcObject {};

struct StrategyRow {
    char const* name;
    int strategy;
    int flags;
};

/// Names a case by its class and its row.
struct CaseName {
    template <typename Row>
    std::string operator()(testing::TestParamInfo<std::tuple<Class const*, Row>> const& info) const {
        return std::get<0>(info.param)->name +
            ("_" + RowName()(testing::TestParamInfo<Row>(std::get<1>(info.param), 0)));
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

using OpenCase = std::tuple<Class const*, ErrnoCase>;

/// Returns one case for each error of the tables of several classes.
std::vector<OpenCase> casesOf(std::vector<std::pair<Class const*, std::vector<ErrnoGroup>>> const& tables) {
    std::vector<OpenCase> cases;
    for (auto const& [tested, table] : tables) {
        for (ErrnoCase const& row : rowsOf(table)) {
            cases.emplace_back(tested, row);
        }
    }
    return cases;
}

auto const className = [](auto const& info) { return info.param->name; };

INSTANTIATE_TEST_SUITE_P(All, IpcObject, testing::ValuesIn(ALL), className);
INSTANTIATE_TEST_SUITE_P(All, IpcServer, testing::ValuesIn(SERVERS), className);

// ---- names ----

struct NameRow {
    char const* name;
    ExpectedReport report;
};

std::string const TOO_LONG(255, 'n');
NameRow const IMPOSSIBLE_NAMES[] = {
    {nullptr, reportOf(CommonErrorId::INVALID_ARGUMENT, "null ptr. or zero size turned in")},
    {"/leading", reportOf(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")},
    {"a/b", reportOf(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")},
    {"trailing/", reportOf(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")},
    {TOO_LONG.c_str(), reportOf(CommonErrorId::UNSUPPORTED_VALUE, "given IPC name is too long")},
};

TEST_P(IpcObject, impossibleNamesAreRefusedWithoutACall) {
    Fault const opens(m_kind.open, 0);
    Fault const removals(m_kind.unlink, 0);
    if (isServer()) {
        setUnlinkOnClose();
    }
    for (auto const& [name, report] : IMPOSSIBLE_NAMES) {
        SCOPED_TRACE(testing::PrintToString(name));
        for (Strategy const strategy : {Creatable::REPLACE, Creatable::CREATE_NEW}) {
            EXPECT_TRUE(open(name, strategy));
            EXPECT_TRUE(chainIs({report}));
        }
        EXPECT_FALSE(m_object->isValid());
        EXPECT_FALSE(m_object->close());
        if (isServer()) {
            EXPECT_TRUE(m_class.deleteName(name));
            EXPECT_TRUE(chainIs({report}));
        }
    }
    EXPECT_EQ(0, opens.getCalls() + removals.getCalls());
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

// ---- sequences of operations ----

/// A sequence of steps with one object and the names a and b. An operation is expected to succeed without a
/// report, or to fail if an exclamation mark precedes it. "calls" are those of the operation before.
struct Scenario {
    std::string name;
    std::vector<std::string> steps;
};

class IpcScenario : public IpcRows<Scenario> {
protected:
    using Words = std::vector<std::string>;

    char const* getName(std::string const& word) const {
        return word == "a" ? m_name : word == "b" ? m_second : word.c_str();
    }
    /// Whether a condition holds for the tested class.
    bool holds(std::string const& word) const {
        return word == "yes" || (word == "stays" && staysOpen()) ||
            (word == "semaphore" && &m_kind == &SEMAPHORE) || (word == "queue" && &m_kind == &QUEUE);
    }
    static int getError(std::string const& word) {
        for (int const error : {EIO, EACCES, EEXIST, EINTR, ENOMEM, EPERM, ENAMETOOLONG, EINVAL}) {
            if (word == strerrorname_np(error)) {
                return error;
            }
        }
        ADD_FAILURE() << "unknown error " << word;
        return 0;
    }
    /// The reports of a kind of failure, or of each removal and each close that failed with an error.
    Reports getReports(Words const& words) const {
        std::map<std::string, Reports> const single = {
            {"separator", {reportOf(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")}},
            {"strategy", {reportOf(CommonErrorId::CONTRACT_BROKEN, "Unsupported strategy passed")}},
            {"existing", reportsOf(EXISTING, getShown(m_name))},
            {"missing", reportsOf(badPath(ENOENT), getShown(m_name))},
            {"denied", reportsOf(DENIED, getShown(m_name))}};
        Reports reports;
        if (auto const found = single.find(words[1]); found != single.end()) {
            return found->second;
        }
        for (size_t i = 1; i + 1 < words.size(); i += 2) {
            int const error = getError(words[i + 1]);
            ErrnoCase const close{error, SysErrorId::SPOILED_INTEGRITY};
            reports = join(reports, words[i] == "close" ? reportsOf(close) : removalReports(error));
        }
        return reports;
    }
    bool run(std::string const& operation, std::string const& name) {
        if (operation == "destroy") {
            m_object.reset();
            return false;
        }
        if (operation == "strategy") {
            return open(m_name, static_cast<Strategy>(std::stoi(name)));
        }
        return operation == "open" || operation == "attach" ? open(getName(name))
            : operation == "create"                         ? open(getName(name), Creatable::OPEN_OR_CREATE)
            : operation == "replace"                        ? open(getName(name), Creatable::REPLACE)
            : operation == "unknown"                        ? open(getName(name), static_cast<Strategy>(99))
            : operation == "close"                          ? m_object->close()
            : operation == "delete"                         ? m_object->deleteName()
                                                            : m_class.deleteName(getName(name));
    }
    void operate(std::string operation, std::string const& name) {
        bool const fails = operation[0] == '!';
        operation.erase(0, fails ? 1 : 0);
        if (operation == "open") {
            provide(name == "b" ? m_second : m_name);
            noteDescriptor();
        }
        {
            auto const fault = [this](Injected& function, char const* of) {
                return std::make_unique<Fault>(function, m_faults[of].first, 1, m_faults[of].second);
            };
            auto const opens = fault(m_kind.open, "open");
            auto const closes = fault(m_kind.close, "close");
            auto const removals = fault(m_kind.unlink, "unlink");
            EXPECT_EQ(fails, run(operation, name));
            m_calls = {
                {"open", opens->getCalls()}, {"close", closes->getCalls()}, {"unlink", removals->getCalls()}};
        }
        m_faults.clear();
        EXPECT_TRUE(fails || chainIs({}));
        if (m_object == nullptr) {
            m_object = m_class.make();
        }
    }
    void take(Words const& words) {
        IpcName const& name = words[1] == "b" ? m_second : m_name;
        std::map<std::string, std::function<void()>> const steps = {
            {"unlinkOnClose", [&] { setUnlinkOnClose(); }},
            {"closeForIt", [&] { closeForIt(); }},
            {"earlier", [] { leaveOlderReport(); }},
            {"old", [&] { makeOld(name); }},
            {"fail",
             [&] {
                 m_faults[words[1]] = {getError(words[2]), words.size() > 3 ? std::stoi(words[3]) : 1};
             }},
            {"calls", [&] { EXPECT_EQ(std::stoi(words[2]), m_calls.at(words[1])); }},
            {"closes", [&] { EXPECT_EQ(std::stoi(words[1]), m_object->getCloses()); }},
            {"valid", [&] { EXPECT_EQ(holds(words[1]), m_object->isValid()); }},
            {"exists", [&] { EXPECT_EQ(holds(words[2]), name.exists()); }},
            {"state", [&] { EXPECT_EQ(words[2] == "old" ? getOldState() : getNewState(), name.getState()); }},
            {"reports", [&] { EXPECT_TRUE(chainIs(getReports(words))); }},
            {"unlinksOnClose",
             [&] { EXPECT_TRUE(!isServer() || holds(words[1]) == m_object->creatable->isUnlinkOnClose()); }}};
        auto const step = steps.find(words[0]);
        step != steps.end() ? step->second() : operate(words[0], words[1]);
    }

    IpcName m_second{m_kind};
    std::map<std::string, std::pair<int, int>> m_faults; ///< Errors and how often, of the next operation.
    std::map<std::string, int> m_calls;
};

TEST_P(IpcScenario, hasTheExpectedEffects) {
    for (std::string const& step : row().steps) {
        SCOPED_TRACE(step);
        std::istringstream stream(step);
        Words words{std::istream_iterator<std::string>(stream), {}};
        words.resize(std::max<size_t>(words.size(), 2));
        take(words);
    }
}

Scenario const OF_ALL[] = {
    {"newObjectIsClosedAndItsDestructorMakesNoCall",
     {"valid no", "unlinksOnClose no", "destroy", "calls close 0"}},
    {"interruptedOpeningIsRepeated", {"fail open EINTR 3", "open a", "calls open 4", "valid yes"}},
    {"openObjectIsClosedBeforeAnotherIsOpened",
     {"open a", "closes 0", "open b", "calls close 1", "closes 1", "exists a yes", "exists b yes",
      "!open a/b", "reports separator", "closes 2", "valid no"}},
    {"openingEndsIfTheOpenObjectCannotBeClosed",
     {"open a", "fail close EIO", "!open b", "calls close 1", "calls open 0", "reports close EIO",
      "valid stays", "closeForIt", "close", "open b"}},
    {"closesOnlyOnce",
     {"open a", "close", "calls close 1", "valid no", "close", "calls close 0", "exists a yes"}},
};

Scenario const OF_CLIENTS[] = {
    {"missingObjectIsABadPathAndIsNotCreated", {"!attach a", "reports missing", "valid no", "exists a no"}},
};

Scenario const OF_QUEUES_AND_MEMORY[] = {
    {"interruptedCloseIsRepeated", {"open a", "fail close EINTR 3", "close", "calls close 4", "valid no"}},
};

Scenario const OF_SERVERS[] = {
    {"openingThatCannotCloseTheOpenObjectKeepsItsNameExceptForSemaphores",
     {"open a", "fail close EIO", "!open b", "reports close EIO", "delete", "exists a semaphore",
      "valid stays", "closeForIt", "close", "valid no"}},
    {"existingNameIsRefusedAndKeptByTheStrategyForNewObjects",
     {"old a", "unlinkOnClose", "!open a", "calls unlink 0", "reports existing", "valid no", "close",
      "calls unlink 0", "delete", "calls unlink 0", "state a old"}},
    {"existingObjectIsOpenedAsItIs", {"old a", "create a", "state a old"}},
    {"replacementIsRepeatedIfTheNameAppearsAndDisappearsMeanwhile",
     {"fail open EEXIST 3", "replace a", "calls open 4", "calls unlink 3"}},
    {"replacementRemovesNothingAfterAnotherFailure",
     {"old a", "fail open EACCES", "!replace a", "reports denied", "calls unlink 0"}},
    {"closedObjectKeepsItsNameExceptForSemaphores",
     {"replace a", "close", "state a new", "delete", "exists a semaphore", "replace a", "close",
      "state a new", "unlinkOnClose", "close", "exists a semaphore"}},
    {"closeRemovesTheNameOnRequest",
     {"unlinkOnClose", "unlinksOnClose yes", "open a", "close", "valid no", "exists a no", "close",
      "calls unlink 0"}},
    {"closeOfAnObjectThatWasNeverOpenMakesNoCall",
     {"unlinkOnClose", "close", "calls unlink 0", "calls close 0", "delete", "calls unlink 0",
      "calls close 0"}},
    {"closeThatCannotRemoveTheNameFailsAndClosesTheObject",
     {"unlinkOnClose", "replace a", "fail unlink EIO", "!close", "calls unlink 1", "reports removal EIO",
      "valid no", "exists a yes", "close", "exists a semaphore", "replace a", "fail unlink EACCES", "!close",
      "calls unlink 1", "reports removal EACCES", "valid no", "exists a yes", "close", "exists a semaphore"}},
    {"bothFailuresOfACloseAreReportedInOneChain",
     {"unlinkOnClose", "open a", "fail unlink EIO", "fail close ENOMEM", "!close",
      "reports removal EIO close ENOMEM", "valid stays", "closeForIt", "close"}},
    {"anotherCreationRemovesTheOldNameOnRequest",
     {"unlinkOnClose", "open a", "open b", "exists a no", "exists b yes"}},
    {"anotherCreationEndsIfTheOldNameCannotBeRemovedAndClosesTheOldObject",
     {"unlinkOnClose", "open a", "fail unlink EIO", "!open b", "calls unlink 1", "reports removal EIO",
      "valid no", "exists a yes", "exists b no"}},
    {"destructorRemovesTheNameOnRequestExceptForQueues",
     {"replace a", "destroy", "exists a yes", "replace a", "unlinkOnClose", "destroy", "exists a queue"}},
    {"destructorOfAClosedObjectRemovesNoName",
     {"open a", "close", "unlinkOnClose", "destroy", "exists a yes"}},
    {"deletesItsNameOnceAndKeepsTheObject",
     {"open a", "delete", "exists a no", "valid yes", "delete", "calls unlink 0", "close", "calls close 1"}},
    {"deletedNameIsNotDeletedAgainIfAnotherObjectHasIt",
     {"unlinkOnClose", "open a", "delete", "old a", "delete", "close", "state a old"}},
    {"nameIsCheckedBeforeTheStrategy", {"!unknown a/b", "reports separator"}},
    {"deletingAMissingNameSucceeds", {"deleteByName a", "open a", "deleteByName a", "exists a no", "delete"}},
};

Scenario const OF_QUEUES_AND_SEMAPHORES[] = {
    {"unsupportedStrategiesAreRefusedWithoutACall",
     {"!strategy 3", "calls open 0", "reports strategy", "valid no", "!strategy 99", "calls open 0",
      "reports strategy", "valid no", "!strategy -1", "calls open 0", "reports strategy", "valid no"}},
};

/// Removals that fail with one of several errors. None is repeated.
std::vector<Scenario> failedRemovals() {
    std::vector<Scenario> scenarios;
    for (char const* const error : {"EACCES", "EPERM", "EIO", "EINTR", "ENAMETOOLONG", "EINVAL"}) {
        std::string const fail = std::string("fail unlink ") + error;
        std::string const reports = std::string("reports removal ") + error;
        scenarios.push_back(
            {std::string("failureOfADeletionOpensAChainAndKeepsTheName_") + error,
             {"open a", "earlier", fail, "!delete", "calls unlink 1", reports, fail, "!deleteByName a",
              "calls unlink 1", reports, "exists a yes", "delete", "exists a no"}});
        scenarios.push_back(
            {std::string("failureOfADeletionEndsAReplacement_") + error,
             {"old a", fail, "!replace a", "calls open 1", "calls unlink 1", reports, "valid no",
              "state a old"}});
    }
    return scenarios;
}

Class const* const CLIENTS[] = {&MSG_QUEUE_CLIENT, &SEMAPHORE_CLIENT, &SHARED_MEMORY_CLIENT};
Class const* const QUEUES_AND_MEMORY[] = {
    &MSG_QUEUE_SERVER, &SHARED_MEMORY_SERVER, &MSG_QUEUE_CLIENT, &SHARED_MEMORY_CLIENT};
Class const* const QUEUES_AND_SEMAPHORES[] = {&MSG_QUEUE_SERVER, &SEMAPHORE_CREATOR};

template <typename Classes, typename Rows>
auto scenariosOf(Classes const& classes, Rows const& rows) {
    return testing::Combine(testing::ValuesIn(classes), testing::ValuesIn(rows));
}

INSTANTIATE_TEST_SUITE_P(All, IpcScenario, scenariosOf(ALL, OF_ALL), CaseName());
INSTANTIATE_TEST_SUITE_P(Clients, IpcScenario, scenariosOf(CLIENTS, OF_CLIENTS), CaseName());
INSTANTIATE_TEST_SUITE_P(
    Interruptions, IpcScenario, scenariosOf(QUEUES_AND_MEMORY, OF_QUEUES_AND_MEMORY), CaseName());
INSTANTIATE_TEST_SUITE_P(Servers, IpcScenario, scenariosOf(SERVERS, OF_SERVERS), CaseName());
INSTANTIATE_TEST_SUITE_P(Removals, IpcScenario, scenariosOf(SERVERS, failedRemovals()), CaseName());
INSTANTIATE_TEST_SUITE_P(
    Strategies, IpcScenario, scenariosOf(QUEUES_AND_SEMAPHORES, OF_QUEUES_AND_SEMAPHORES), CaseName());

// ---- opening ----

using IpcOpenRows = IpcRows<ErrnoCase>;

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
    Calls const removals(m_kind.unlink, 0);
    EXPECT_FALSE(open(m_name, static_cast<Strategy>(row().strategy)));
    EXPECT_EQ(row().flags, m_kind.last_open.flags);
    EXPECT_EQ(0600U, m_kind.last_open.mode);
    EXPECT_EQ(m_name.getSystemName(), m_kind.last_open.name);
    EXPECT_TRUE(m_object->isValid());
    EXPECT_EQ(getNewState(), m_name.getState());
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

// ---- close ----

using IpcCloseRows = IpcRows<int>;

TEST_P(IpcCloseRows, failureIsReportedOnTopOfWhatIsPending) {
    openIt();
    std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::INPUT_OUTPUT, "earlier");
    EXPECT_TRUE(failOnce(m_kind.close, row(), [&] { return m_object->close(); }));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INPUT_OUTPUT},
         {SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(row()))}}));
    bool const is_valid_after = staysOpen() && row() != EBADF;
    EXPECT_EQ(is_valid_after, m_object->isValid());
    Fault const closes(m_kind.close, 0);
    EXPECT_FALSE(m_object->close());
    EXPECT_EQ(is_valid_after ? 1 : 0, closes.getCalls());
    closeForIt();
}

INSTANTIATE_TEST_SUITE_P(
    All, IpcCloseRows,
    testing::Combine(testing::ValuesIn(ALL), testing::Values(EIO, EINVAL, ENOSPC, EDQUOT, EBADF)),
    CaseName());
// That of the others is repeated.
INSTANTIATE_TEST_SUITE_P(
    Semaphore, IpcCloseRows,
    testing::Combine(testing::Values(&SEMAPHORE_CREATOR, &SEMAPHORE_CLIENT), testing::Values(EINTR)),
    CaseName());

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

/// The warnings of a destructor in which a call fails.
struct DestructorRow {
    Class const* tested;
    bool unlinks; ///< Whether the removal of the name fails, and not the close.
    std::string warnings;
};

std::string warning(std::string const& name, char const* text) {
    return "WARNING framework/src/vesk/posix/" + name + " ~" + name + ": " + text;
}

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
        Fault const fault(GetParam().unlinks ? m_kind.unlink : m_kind.close, EIO, 1, Fault::FOREVER);
        m_object.reset();
        std::string const& warnings = GetParam().warnings; // One for each call.
        EXPECT_EQ(1 + std::count(warnings.begin(), warnings.end(), '\n'), fault.getCalls());
    }
    EXPECT_EQ(GetParam().warnings, recorder.getText());
    EXPECT_TRUE(m_name.exists());
    if (!GetParam().unlinks) {
        closeForIt();
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, IpcDestructorRows,
    testing::ValuesIn(std::vector<DestructorRow>{
        {&MSG_QUEUE_SERVER, false, warning("MsgQueueBase", "error closing message queue")},
        {&MSG_QUEUE_CLIENT, false, warning("MsgQueueBase", "error closing message queue")},
        {&SEMAPHORE_CREATOR, false, warning("SemaphoreCreator", "error closing semaphore")},
        {&SEMAPHORE_CREATOR, true, warning("SemaphoreCreator", "error closing semaphore")},
        {&SEMAPHORE_CLIENT, false, warning("SemaphoreBase", "error closing semaphore!")},
        {&SHARED_MEMORY_SERVER, false,
         warning("SharedMemoryServer", "Error closing SharedMemory") + "\n" +
             warning("SharedMemoryBase", "Error closing SharedMemory")},
        {&SHARED_MEMORY_SERVER, true, warning("SharedMemoryServer", "Error closing SharedMemory")},
        {&SHARED_MEMORY_CLIENT, false, warning("SharedMemoryBase", "Error closing SharedMemory")}}),
    [](auto const& row) {
        return row.param.tested->name + std::string(row.param.unlinks ? "_unlink" : "_close");
    });

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

TEST_P(IpcObject, objectOfAnotherUserIsInaccessible) {
    VESK_SKIP_UNLESS_ROOT();
    makeOld(m_name);
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        EXPECT_TRUE(open(m_name, Creatable::OPEN_OR_CREATE));
        bool const is_denied = &m_class != &MSG_QUEUE_CLIENT;
        SysErrorId::Id const id = is_denied ? SysErrorId::PERMISSION_DENIED : SysErrorId::INVALID_PARAMETER;
        EXPECT_TRUE(isReported({EACCES, id, FileAccessErrorId::ACCESS_DENIED}));
        if (&m_class == &SHARED_MEMORY_SERVER) { // The other servers do not support it.
            EXPECT_TRUE(open(m_name, Creatable::TRUNCATE));
            EXPECT_TRUE(isReported(DENIED));
        }
        if (isServer()) {
            EXPECT_TRUE(open(m_name));
            EXPECT_TRUE(isReported(EXISTING));
            EXPECT_TRUE(open(m_name, Creatable::REPLACE));
            EXPECT_TRUE(chainIs(removalReports(EACCES)));
            EXPECT_TRUE(m_class.deleteName(m_name));
            EXPECT_TRUE(chainIs(removalReports(EACCES)));
        }
        EXPECT_FALSE(m_object->isValid());
    });
    EXPECT_EQ(getOldState(), m_name.getState());
}

// ---- the classes ----

TEST(IpcSlots, closeFollowsTheDestructors) {
    EXPECT_EQ(2, getSlot(&MsgQueueBase::close));
    EXPECT_EQ(2, getSlot(&SemaphoreBase::close));
    EXPECT_EQ(2, getSlot(&SharedMemoryBase::close));
    EXPECT_EQ(2, getSlot(&SharedMemoryServer::close));
}

} // namespace
