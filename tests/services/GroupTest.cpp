#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"

#include <vesk/Group.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <grp.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {
// The sizes of the buffers that the look-ups were given.
std::vector<size_t>* s_sizes = nullptr;
// The entry that every look-up finds, if it is not null.
group const* s_entry = nullptr;
// What the system advises for the buffer's size, if it is not 0.
long s_advice = 0;

void noteSize(size_t size) {
    if (s_sizes != nullptr) {
        s_sizes->push_back(size);
    }
}

/// Gives the test's entry, its name in the buffer.
int giveEntry(group* entry, char* buffer, size_t size, group** found) {
    *entry = *s_entry;
    if (strlen(s_entry->gr_name) + 1 > size) {
        return ERANGE;
    }
    entry->gr_name = strcpy(buffer, s_entry->gr_name);
    *found = entry;
    return 0;
}
} // namespace

support::Injected inject_getgrgid_r("getgrgid_r");
extern "C" int getgrgid_r(gid_t id, group* entry, char* buffer, size_t size, group** found) {
    int error = 0;
    noteSize(size);
    if (inject_getgrgid_r.fails(error)) {
        return error;
    }
    return s_entry != nullptr ? giveEntry(entry, buffer, size, found)
                              : reinterpret_cast<int (*)(gid_t, group*, char*, size_t, group**)>(
                                    inject_getgrgid_r.getReal())(id, entry, buffer, size, found);
}

support::Injected inject_getgrnam_r("getgrnam_r");
extern "C" int getgrnam_r(char const* name, group* entry, char* buffer, size_t size, group** found) {
    int error = 0;
    noteSize(size);
    if (inject_getgrnam_r.fails(error)) {
        return error;
    }
    return s_entry != nullptr ? giveEntry(entry, buffer, size, found)
                              : reinterpret_cast<int (*)(char const*, group*, char*, size_t, group**)>(
                                    inject_getgrnam_r.getReal())(name, entry, buffer, size, found);
}

support::Injected inject_sysconf("sysconf");
extern "C" VESK_UNWATCHED long sysconf(int name) {
    int error = 0;
    if (name == _SC_GETGR_R_SIZE_MAX) {
        if (inject_sysconf.fails(error)) {
            errno = error;
            return -1;
        }
        if (s_advice != 0) {
            return s_advice;
        }
    }
    return reinterpret_cast<long (*)(int)>(inject_sysconf.getReal())(name);
}

/// The sanitizers give null for too much memory, as the system does; they touch memory for all that they give.
extern "C" char const* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}
extern "C" char const* __tsan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

namespace {

using support::chainIs;
using support::ChildEnd;
using support::Fault;
using support::runInChild;
using vesk::Group;

constexpr long long NOBODYS_ID = 3999999999LL;
char const* const NOBODYS_NAME = "no-such-Group-of-vesk";

static_assert(std::is_same_v<long long const, decltype(Group::BAD_ID)> && Group::BAD_ID == -1);

// Global objects may use the constants.
std::string const s_early_name = Group::BAD_NAME + "early";
Group const s_early(Group::BAD_NAME);

/// What is put in the place of the system's answers goes with the test.
class GroupTest : public testing::Test {
protected:
    GroupTest() { s_sizes = &m_sizes; }
    ~GroupTest() override {
        s_sizes = nullptr;
        s_entry = nullptr;
        s_advice = 0;
    }

    std::vector<size_t> m_sizes;
};

/// An entry with this name and id.
class Entry {
public:
    Entry(std::string name, gid_t id) : m_name(std::move(name)) {
        m_entry.gr_name = m_name.data();
        m_entry.gr_gid = id;
        s_entry = &m_entry;
    }
    Entry(Entry const&) = delete;
    Entry& operator=(Entry const&) = delete;

private:
    std::string m_name;
    group m_entry = {};
};

// ---- Look-ups ----

TEST_F(GroupTest, rootIsFoundByIdAndByName) {
    EXPECT_EQ("root", Group::id2name(0));
    EXPECT_EQ(0, Group::name2id("root"));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(GroupTest, everyEntryOfTheSystemIsFoundBothWays) {
    std::vector<std::pair<std::string, long long>> entries;
    setgrent();
    while (group const* const entry = getgrent()) {
        entries.emplace_back(entry->gr_name, entry->gr_gid);
    }
    endgrent();
    ASSERT_FALSE(entries.empty());
    for (auto const& [name, id] : entries) {
        EXPECT_EQ(id, Group::name2id(name));
        EXPECT_EQ(id, Group::name2id(Group::id2name(id)));
    }
}

TEST_F(GroupTest, anIdWithoutAnEntryHasAnEmptyName) {
    EXPECT_EQ("", Group::id2name(NOBODYS_ID));
    EXPECT_EQ(Group::BAD_NAME, Group::id2name(NOBODYS_ID));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(GroupTest, aNameWithoutAnEntryHasTheBadId) {
    EXPECT_EQ(Group::BAD_ID, Group::name2id(NOBODYS_NAME));
    EXPECT_EQ(Group::BAD_ID, Group::name2id(""));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(GroupTest, anIdThatTheSystemCannotHaveIsNobodys) {
    for (long long const id : {-1LL, 1LL << 32, LLONG_MIN, LLONG_MAX, -(1LL << 32)}) {
        EXPECT_EQ("", Group::id2name(id)) << id;
    }
    EXPECT_TRUE(m_sizes.empty()) << "nobody was asked";
}

TEST_F(GroupTest, theLargestIdIsLookedUpAndGivenAsItIs) {
    Entry const entry("largest", 4294967295u);
    EXPECT_EQ("largest", Group::id2name(4294967295LL));
    EXPECT_EQ(4294967295LL, Group::name2id("largest"));
}

// ---- The buffer ----

TEST_F(GroupTest, theBufferIsAsLargeAsTheSystemAdvises) {
    Entry const entry("root", 0);
    s_advice = 777;
    EXPECT_EQ("root", Group::id2name(0));
    EXPECT_EQ(0, Group::name2id("root"));
    EXPECT_EQ((std::vector<size_t>{777, 777}), m_sizes);
}

TEST_F(GroupTest, theBufferHas256BytesWithoutAnAdvice) {
    Entry const entry("root", 0);
    Fault const fault(inject_sysconf, EINVAL, 1, Fault::FOREVER);
    EXPECT_EQ("root", Group::id2name(0));
    EXPECT_EQ(0, Group::name2id("root"));
    EXPECT_EQ((std::vector<size_t>{256, 256}), m_sizes);
    EXPECT_EQ(2, fault.getCalls());
}

TEST_F(GroupTest, aBufferThatIsTooSmallIsDoubled) {
    Fault const advices(inject_sysconf, 0);
    s_advice = 100;
    std::string const name(1000, 'n');
    Entry const entry(name, 5);
    EXPECT_EQ(name, Group::id2name(5));
    EXPECT_EQ((std::vector<size_t>{100, 200, 400, 800, 1600}), m_sizes);
    m_sizes.clear();
    EXPECT_EQ(5, Group::name2id(name));
    EXPECT_EQ((std::vector<size_t>{100, 200, 400, 800, 1600}), m_sizes);
    EXPECT_EQ(2, advices.getCalls()) << "the system is asked once a look-up";
}

TEST_F(GroupTest, aBufferOfOneByteGrowsUntilARealEntryFits) {
    s_advice = 1;
    EXPECT_EQ("root", Group::id2name(0));
    EXPECT_LT(1u, m_sizes.size());
    m_sizes.clear();
    EXPECT_EQ(0, Group::name2id("root"));
    EXPECT_LT(1u, m_sizes.size());
}

TEST_F(GroupTest, aBufferThatCannotBeHadEndsTheLookUp) {
    s_advice = -2; // As a size, more than there is.
    EXPECT_EQ(Group::BAD_NAME, Group::id2name(0));
    EXPECT_EQ(Group::BAD_ID, Group::name2id("root"));
    EXPECT_TRUE(m_sizes.empty());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(GroupTest, anEntryThatNeverFitsEndsWithTheMemory) {
    ChildEnd const end = runInChild([] {
        s_advice = 1 << 20;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
        rlimit const limit = {1 << 30, 1 << 30};
        ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
#endif
        Fault const by_id(inject_getgrgid_r, ERANGE, 1, Fault::FOREVER);
        Fault const by_name(inject_getgrnam_r, ERANGE, 1, Fault::FOREVER);
        EXPECT_EQ(Group::BAD_NAME, Group::id2name(0));
        EXPECT_EQ(Group::BAD_ID, Group::name2id("root"));
        EXPECT_EQ(by_id.getCalls(), by_name.getCalls());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

class GroupFailures : public GroupTest, public testing::WithParamInterface<int> {};

TEST_P(GroupFailures, areTheSameAsNoEntryAndReportNothing) {
    Fault const by_id(inject_getgrgid_r, GetParam());
    EXPECT_EQ(Group::BAD_NAME, Group::id2name(0));
    EXPECT_EQ(1, by_id.getCalls()) << "nothing is repeated";
    Fault const by_name(inject_getgrnam_r, GetParam());
    EXPECT_EQ(Group::BAD_ID, Group::name2id("root"));
    EXPECT_EQ(1, by_name.getCalls());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    Table, GroupFailures, testing::Values(ENOENT, ESRCH, EBADF, EPERM, EINTR, EIO, EMFILE, ENFILE, ENOMEM));

TEST_F(GroupTest, lookUpsOfManyThreadsDoNotDisturbEachOther) {
    s_sizes = nullptr;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            int wrong = 0;
            for (int round = 0; round < 50; ++round) {
                wrong += Group::id2name(0) == "root" ? 0 : 1;
                wrong += Group::name2id("root") == 0 ? 0 : 1;
                wrong += Group::name2id(NOBODYS_NAME) == -1 ? 0 : 1;
            }
            EXPECT_EQ(0, wrong);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// ---- Objects ----

TEST_F(GroupTest, anObjectWithAnIdLooksItsNameUpOnce) {
    Entry const entry("root", 0);
    Fault const calls(inject_getgrgid_r, 0);
    Group const object(0LL);
    EXPECT_TRUE(object.isIdKnown());
    EXPECT_FALSE(object.isNameKnown());
    EXPECT_EQ(0, object.getId());
    EXPECT_EQ(Group::BAD_NAME, object.getKnownName());
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ("root", object.getName());
    EXPECT_TRUE(object.isNameKnown());
    EXPECT_EQ("root", object.getName());
    EXPECT_EQ("root", object.getKnownName());
    EXPECT_EQ(1, calls.getCalls());
}

TEST_F(GroupTest, anObjectWithANameLooksItsIdUpOnce) {
    Entry const entry("root", 0);
    Fault const calls(inject_getgrnam_r, 0);
    Group const object(std::string("root"));
    EXPECT_FALSE(object.isIdKnown());
    EXPECT_TRUE(object.isNameKnown());
    EXPECT_EQ("root", object.getName());
    EXPECT_EQ(Group::BAD_ID, object.getKnownId());
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ(0, object.getId());
    EXPECT_TRUE(object.isIdKnown());
    EXPECT_EQ(0, object.getId());
    EXPECT_EQ(0, object.getKnownId());
    EXPECT_EQ(1, calls.getCalls());
}

TEST_F(GroupTest, whatIsNotFoundIsKnownAsSuch) {
    Fault const by_name(inject_getgrnam_r, 0);
    Group const without_id{std::string(NOBODYS_NAME)};
    EXPECT_EQ(Group::BAD_ID, without_id.getId());
    int const asked_by_name = by_name.getCalls();
    EXPECT_EQ(Group::BAD_ID, without_id.getId());
    EXPECT_TRUE(without_id.isIdKnown());
    EXPECT_EQ(asked_by_name, by_name.getCalls());

    Fault const by_id(inject_getgrgid_r, 0);
    Group const without_name(NOBODYS_ID);
    EXPECT_EQ(Group::BAD_NAME, without_name.getName());
    int const asked_by_id = by_id.getCalls();
    EXPECT_EQ(Group::BAD_NAME, without_name.getName());
    EXPECT_TRUE(without_name.isNameKnown());
    EXPECT_EQ(asked_by_id, by_id.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(GroupTest, aCopyKeepsWhatIsKnown) {
    Group const original(0LL);
    EXPECT_EQ("root", original.getName());
    Entry const entry("root", 0);
    Fault const calls(inject_getgrgid_r, 0);
    Group const copy(original);
    EXPECT_EQ("root", copy.getName());
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(GroupTest, theConstantsServeGlobalObjects) {
    EXPECT_EQ("early", s_early_name);
    EXPECT_EQ("", s_early.getName());
    EXPECT_TRUE(Group::BAD_NAME.empty());
}

} // namespace
