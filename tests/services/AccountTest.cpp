#include "support/CleanEnd.h"
#include "support/Testing.h"

#include <vesk/Group.h>
#include <vesk/User.h>

#include <pwd.h>

/// `User` and `Group` have the same contract, each for its own database: every test runs for both.

namespace {
// Receives the sizes of the look-ups' buffers.
std::vector<size_t>* s_sizes = nullptr;
// The entry of this type (`passwd` or `group`) that every look-up finds, if it is not null.
template <typename Row>
Row const* s_entry = nullptr;
// The `sysconf` name of the buffer size, and the size that the system advises, if it is not 0.
int s_advice_name = -1;
long s_advice = 0;

/// Looks up the entry of the test or, without one, of the system, by id or by name.
template <typename Row, typename Key>
int lookUp(
    support::Injected& function, int (*replacement)(Key, Row*, char*, size_t, Row**), char* Row::*name,
    Key key, Row* entry, char* buffer, size_t size, Row** found) {
    int error = 0;
    if (s_sizes != nullptr) {
        s_sizes->push_back(size);
    }
    if (function.fails(error)) {
        return error;
    }
    Row const* const wanted = s_entry<Row>;
    if (wanted == nullptr) {
        return function.getReal(replacement)(key, entry, buffer, size, found);
    }
    *entry = *wanted;
    if (strlen(wanted->*name) + 1 > size) {
        return ERANGE;
    }
    entry->*name = strcpy(buffer, wanted->*name);
    *found = entry;
    return 0;
}
} // namespace

#define VESK_LOOK_UP(function, Key, Row, name)                                                               \
    support::Injected inject_##function(#function);                                                          \
    extern "C" int function(Key key, Row* entry, char* buffer, size_t size, Row** found) {                   \
        return lookUp(inject_##function, function, &Row::name, key, entry, buffer, size, found);             \
    }

VESK_LOOK_UP(getpwuid_r, uid_t, passwd, pw_name)
VESK_LOOK_UP(getpwnam_r, char const*, passwd, pw_name)
VESK_LOOK_UP(getgrgid_r, gid_t, group, gr_name)
VESK_LOOK_UP(getgrnam_r, char const*, group, gr_name)

support::Injected inject_sysconf("sysconf");
extern "C" VESK_UNWATCHED long sysconf(int name) {
    if (name == s_advice_name && inject_sysconf.fails()) {
        return -1;
    }
    return name == s_advice_name && s_advice != 0 ? s_advice : inject_sysconf.getReal(sysconf)(name);
}

/// The sanitizers return null for too much memory, as the system does.
extern "C" char const* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}
extern "C" char const* __tsan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

namespace {

using namespace support;
using vesk::Group;
using vesk::User;

constexpr long long UNUSED_ID = 3999999999LL;
char const* const UNUSED_NAME = "no-such-account-of-vesk";

/// The functions of libc below a class, and global objects that use its constants.
template <
    typename Account, typename RowType, int Advice, auto Name, auto Id, Injected& ById, Injected& ByName,
    auto First, auto Next, auto End>
struct Database {
    using Row = RowType;
    static constexpr int ADVICE = Advice;
    static constexpr auto NAME = Name;
    static constexpr auto ID = Id;
    static constexpr Injected& BY_ID = ById;
    static constexpr Injected& BY_NAME = ByName;
    static constexpr auto FIRST = First;
    static constexpr auto NEXT = Next;
    static constexpr auto END = End;
    static inline std::string const s_early_name = Account::BAD_NAME + "early";
    static inline Account const s_early{Account::BAD_NAME};
};
using Users = Database<
    User, passwd, _SC_GETPW_R_SIZE_MAX, &passwd::pw_name, &passwd::pw_uid, inject_getpwuid_r,
    inject_getpwnam_r, setpwent, getpwent, endpwent>;
using Groups = Database<
    Group, group, _SC_GETGR_R_SIZE_MAX, &group::gr_name, &group::gr_gid, inject_getgrgid_r, inject_getgrnam_r,
    setgrent, getgrent, endgrent>;
template <typename Account>
using Traits = std::conditional_t<std::is_same_v<Account, User>, Users, Groups>;

template <typename Account>
class AccountTest : public testing::Test {
    static_assert(std::is_same_v<long long const, decltype(Account::BAD_ID)> && Account::BAD_ID == -1);

protected:
    using Row = typename Traits<Account>::Row;

    /// Makes every look-up find an entry with this name and id.
    void setEntry(std::string const& name, unsigned int id) {
        m_name = name;
        m_entry.*Traits<Account>::NAME = m_name.data();
        m_entry.*Traits<Account>::ID = id;
        s_entry<Row> = &m_entry;
    }

    /// Looks an entry up both ways.
    static void expectFound(std::string const& name, long long id) {
        EXPECT_EQ(name, Account::id2name(id));
        EXPECT_EQ(id, Account::name2id(name));
    }

    /// Looks an entry up both ways without success.
    static void expectNotFound(std::string const& name, long long id) {
        EXPECT_EQ(Account::BAD_NAME, Account::id2name(id));
        EXPECT_EQ(Account::BAD_ID, Account::name2id(name));
    }

    AccountTest() {
        s_sizes = &m_sizes;
        s_advice_name = Traits<Account>::ADVICE;
    }
    ~AccountTest() override {
        s_sizes = nullptr;
        s_entry<Row> = nullptr;
        s_advice_name = -1;
        s_advice = 0;
    }

    Injected& m_by_id = Traits<Account>::BY_ID;
    Injected& m_by_name = Traits<Account>::BY_NAME;
    std::vector<size_t> m_sizes;

private:
    std::string m_name;
    Row m_entry = {};
};

using Both = testing::Types<User, Group>;
TYPED_TEST_SUITE(AccountTest, Both, TypeName);

TYPED_TEST(AccountTest, rootAndEveryEntryOfTheSystemAreFoundBothWays) {
    this->expectFound("root", 0);
    std::vector<std::pair<std::string, long long>> entries;
    using Base = Traits<TypeParam>;
    Base::FIRST();
    while (typename Base::Row const* const entry = Base::NEXT()) {
        entries.emplace_back(entry->*Base::NAME, entry->*Base::ID);
    }
    Base::END();
    ASSERT_FALSE(entries.empty());
    for (auto const& [name, id] : entries) {
        EXPECT_EQ(id, TypeParam::name2id(name));
        EXPECT_EQ(id, TypeParam::name2id(TypeParam::id2name(id)));
    }
}

TYPED_TEST(AccountTest, unusedIdAndNameAreNotFound) {
    EXPECT_EQ("", TypeParam::BAD_NAME);
    this->expectNotFound(UNUSED_NAME, UNUSED_ID);
    this->expectNotFound("", UNUSED_ID);
}

TYPED_TEST(AccountTest, largestIdIsLookedUpAndImpossibleOnesAreNot) {
    for (long long const id : {-1LL, 1LL << 32, LLONG_MIN, LLONG_MAX, -(1LL << 32)}) {
        EXPECT_EQ("", TypeParam::id2name(id)) << id;
    }
    EXPECT_TRUE(this->m_sizes.empty());
    this->setEntry("largest", 4294967295u);
    this->expectFound("largest", 4294967295LL);
}

TYPED_TEST(AccountTest, bufferHasTheAdvisedSizeOr256BytesAndIsDoubledUntilTheEntryFits) {
    std::string const name(1000, 'n');
    this->setEntry(name, 5);
    std::pair<long, std::vector<size_t>> const rows[] = {
        {1777, {1777}}, {100, {100, 200, 400, 800, 1600}}, {0, {256, 512, 1024}}};
    for (auto const& [advice, sizes] : rows) {
        s_advice = advice;
        Fault const advices(inject_sysconf, advice == 0 ? EINVAL : 0, 1, Fault::FOREVER);
        for (bool const by_id : {true, false}) {
            SCOPED_TRACE(std::to_string(advice) + (by_id ? " by id" : " by name"));
            this->m_sizes.clear();
            EXPECT_TRUE(by_id ? TypeParam::id2name(5) == name : TypeParam::name2id(name) == 5);
            EXPECT_EQ(sizes, this->m_sizes);
        }
        EXPECT_EQ(2, advices.getCalls()) << "once per look-up";
    }
}

TYPED_TEST(AccountTest, bufferOfOneByteGrowsUntilARealEntryFits) {
    s_advice = 1;
    EXPECT_EQ("root", TypeParam::id2name(0));
    EXPECT_LT(1u, this->m_sizes.size());
    this->m_sizes.clear();
    EXPECT_EQ(0, TypeParam::name2id("root"));
    EXPECT_LT(1u, this->m_sizes.size());
}

TYPED_TEST(AccountTest, lookUpWithoutMemoryForItsBufferFindsNothing) {
    s_advice = -2; // As a size, more than there is.
    this->expectNotFound("root", 0);
    EXPECT_TRUE(this->m_sizes.empty());
}

TYPED_TEST(AccountTest, lookUpOfAnEntryThatNeverFitsEndsWithoutMemory) {
    expectInChild([this] {
        s_advice = 1 << 20;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
        rlimit const limit = {1 << 30, 1 << 30};
        ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
#endif
        Fault const by_id(this->m_by_id, ERANGE, 1, Fault::FOREVER);
        Fault const by_name(this->m_by_name, ERANGE, 1, Fault::FOREVER);
        this->expectNotFound("root", 0);
        EXPECT_EQ(by_id.getCalls(), by_name.getCalls());
    });
}

TYPED_TEST(AccountTest, failedLookUpLooksLikeAMissingEntryAndReportsNothing) {
    for (int const error : {ENOENT, ESRCH, EBADF, EPERM, EINTR, EIO, EMFILE, ENFILE, ENOMEM}) {
        SCOPED_TRACE(error);
        Fault const by_id(this->m_by_id, error);
        Fault const by_name(this->m_by_name, error);
        this->expectNotFound("root", 0);
        EXPECT_EQ(1, by_id.getCalls()) << "nothing is repeated";
        EXPECT_EQ(1, by_name.getCalls());
    }
}

TYPED_TEST(AccountTest, lookUpsOfManyThreadsDoNotDisturbEachOther) {
    s_sizes = nullptr;
    runInThreads(4, [](int) {
        int wrong = 0;
        for (int round = 0; round < 50; ++round) {
            wrong += TypeParam::id2name(0) == "root" ? 0 : 1;
            wrong += TypeParam::name2id("root") == 0 ? 0 : 1;
            wrong += TypeParam::name2id(UNUSED_NAME) == -1 ? 0 : 1;
        }
        EXPECT_EQ(0, wrong);
    });
}

TYPED_TEST(AccountTest, objectWithAnIdAndItsCopyLookTheNameUpOnce) {
    this->setEntry("root", 0);
    Fault const calls(this->m_by_id, 0);
    TypeParam const object(0LL);
    EXPECT_TRUE(object.isIdKnown());
    EXPECT_FALSE(object.isNameKnown());
    EXPECT_EQ(0, object.getId());
    EXPECT_EQ(TypeParam::BAD_NAME, object.getKnownName());
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ("root", object.getName());
    EXPECT_TRUE(object.isNameKnown());
    EXPECT_EQ("root", TypeParam(object).getName());
    EXPECT_EQ("root", object.getName());
    EXPECT_EQ("root", object.getKnownName());
    EXPECT_EQ(1, calls.getCalls());
}

TYPED_TEST(AccountTest, objectWithANameLooksItsIdUpOnce) {
    this->setEntry("root", 0);
    Fault const calls(this->m_by_name, 0);
    TypeParam const object(std::string("root"));
    EXPECT_FALSE(object.isIdKnown());
    EXPECT_TRUE(object.isNameKnown());
    EXPECT_EQ("root", object.getName());
    EXPECT_EQ(TypeParam::BAD_ID, object.getKnownId());
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ(0, object.getId());
    EXPECT_TRUE(object.isIdKnown());
    EXPECT_EQ(0, object.getId());
    EXPECT_EQ(0, object.getKnownId());
    EXPECT_EQ(1, calls.getCalls());
}

TYPED_TEST(AccountTest, failedLookUpIsNotRepeated) {
    Fault const by_name(this->m_by_name, 0);
    Fault const by_id(this->m_by_id, 0);
    TypeParam const without_id{std::string(UNUSED_NAME)};
    TypeParam const without_name(UNUSED_ID);
    std::vector<std::pair<int, int>> calls;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(TypeParam::BAD_ID, without_id.getId());
        EXPECT_TRUE(without_id.isIdKnown());
        EXPECT_EQ(TypeParam::BAD_NAME, without_name.getName());
        EXPECT_TRUE(without_name.isNameKnown());
        calls.emplace_back(by_name.getCalls(), by_id.getCalls());
    }
    EXPECT_EQ(calls[0], calls[1]);
}

TYPED_TEST(AccountTest, constantsAreInitializedBeforeGlobalObjects) {
    EXPECT_EQ("early", Traits<TypeParam>::s_early_name);
    EXPECT_EQ("", Traits<TypeParam>::s_early.getName());
    EXPECT_TRUE(TypeParam::BAD_NAME.empty());
}

} // namespace
