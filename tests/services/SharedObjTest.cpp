#include "support/CleanEnd.h"
#include "support/Testing.h"

#include <vesk/RefCounted.h>
#include <vesk/SharedObj.h>

#include <dlfcn.h>

namespace {

/// Receives the calls of the dynamic loader in order, if it is not null.
std::vector<std::string>* s_calls = nullptr;
/// The next text of the loader; null leaves the text to the loader.
char const* s_loader_text = nullptr;

} // namespace

VESK_INJECT(
    void*, return nullptr, dlopen, (char const* path, int flags), (path, flags),
    if (s_calls != nullptr) { s_calls->push_back("dlopen " + std::to_string(flags)); })
VESK_INJECT(
    int, s_loader_text = "stuck"; return error, dlclose, (void* handle), (handle),
                                         if (s_calls != nullptr) { s_calls->emplace_back("dlclose"); })
VESK_INJECT(
    char*, , dlerror, (), (),
    if (s_loader_text != nullptr) { return const_cast<char*>(std::exchange(s_loader_text, nullptr)); })

namespace {

using namespace support;
using vesk::SharedObj;
using Calls = std::vector<std::string>;

/// Returns whether the process has loaded a library.
bool isLoaded(char const* path) {
    void* const handle = dlopen(path, RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

std::string callName(SharedObj const& object) {
    void* address = nullptr;
    if (object.resolve("getLibraryName", address)) {
        return "nothing";
    }
    return reinterpret_cast<char const* (*)()>(address)();
}

static_assert(std::is_base_of_v<vesk::RefCounted, SharedObj>);
static_assert(sizeof(SharedObj) == sizeof(vesk::RefCounted) + sizeof(void*));
static_assert(std::is_copy_constructible_v<SharedObj> && std::is_copy_assignable_v<SharedObj>);
static_assert(std::is_same_v<char const* const, decltype(SharedObj::SharedLibraryPrefix)>);
static_assert(std::is_same_v<char const* const, decltype(SharedObj::SharedLibrarySuffix)>);

/// Checks that every test unloads the libraries.
class SharedObjTest : public testing::Test {
protected:
    // The first call of a replaced function looks up the real one, which clears the loader's text.
    SharedObjTest() { dlerror(); }
    ~SharedObjTest() override {
        m_object = SharedObj();
        EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
        EXPECT_FALSE(isLoaded(SECOND_LIBRARY));
    }

    /// Loads the first library, which counts in `m_unloads` when it is unloaded.
    void load() {
        ASSERT_FALSE(m_object.load(FIRST_LIBRARY));
        void* address = nullptr;
        ASSERT_FALSE(m_object.resolve("library_unloads", address));
        *static_cast<int**>(address) = &m_unloads;
    }

    /// Checks that the pending chain is a report with a text that begins with `begin`. Acknowledges the chain.
    static void expectReport(SharedObj::ErrorId id, std::string const& begin) {
        ASSERT_TRUE(std::ErrorStorage::isError(true));
        std::string const text = std::ErrorStorage::get()->getText();
        EXPECT_EQ(0u, text.find(rowText(id, begin))) << text;
        EXPECT_TRUE(chainIs({id}));
    }

    int m_unloads = 0;
    SharedObj m_object;
};

TEST_F(SharedObjTest, reportsHaveTheirTextsAndTheSystemFamilyAsParent) {
    EXPECT_STREQ("lib", SharedObj::SharedLibraryPrefix);
    EXPECT_STREQ(".so", SharedObj::SharedLibrarySuffix);
    EXPECT_EQ("Failed to load shared object: x", rowText(SharedObj::ErrorId::LOAD_FAILED, "x"));
    EXPECT_EQ("Failed to unload shared object: x", rowText(SharedObj::ErrorId::UNLOAD_FAILED, "x"));
    EXPECT_EQ(
        "Failed to resolve symbol in shared object: x", rowText(SharedObj::ErrorId::RESOLVE_FAILED, "x"));
    EXPECT_TRUE(m_object.load("/nonexistent"));
    EXPECT_TRUE(std::ErrorStorage::isA(SharedObj::Error));
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError));
    std::ErrorStorage::ack();
}

constexpr char const* MISSING = "/nonexistent/libnothing.so";
constexpr char const* UNLOAD = "unload";

struct OperationRow : NamedRow {
    bool is_loaded;   ///< Whether the object has the first library before.
    char const* path; ///< To load, or `UNLOAD`.
    int fault;        ///< Of dlclose.
    Calls calls;
    char const* library; ///< The library afterwards; "" if there is none.
    std::vector<ExpectedReport> reports = {};
    char const* loader_text = nullptr; ///< The beginning of the loader's text in the only report, if any.
};

std::string const OPEN = "dlopen " + std::to_string(RTLD_LAZY);
ExpectedReport const STUCK{SharedObj::ErrorId::UNLOAD_FAILED, "Failed to unload shared object: stuck"};
std::vector<ExpectedReport> const STUCK_LOAD = {
    STUCK,
    {SharedObj::ErrorId::LOAD_FAILED,
     "Failed to load shared object: Unload of previously loaded library failed"}};

OperationRow const OPERATIONS[] = {
    {"loadIsLazy", false, FIRST_LIBRARY, 0, {OPEN}, "first"},
    {"loadIntoALoadedObject", true, SECOND_LIBRARY, 0, {"dlclose", OPEN}, "second"},
    {"loadIntoAnObjectThatCannotUnload", true, SECOND_LIBRARY, -1, {"dlclose"}, "first", STUCK_LOAD},
    {"missingFile", false, MISSING, 0, {OPEN}, "", {}, "/nonexistent/libnothing.so: cannot open"},
    {"missingFileIntoALoadedObject", true, MISSING, 0, {"dlclose", OPEN}, "", {}, MISSING},
    {"fileThatIsNoLibrary", false, "/proc/self/stat", 0, {OPEN}, "", {}, ""},
    {"null", false, nullptr, 0, {}, "", {contractBroken("NULL pointer given for path")}},
    {"nullIntoALoadedObject",
     true,
     nullptr,
     0,
     {"dlclose"},
     "",
     {contractBroken("NULL pointer given for path")}},
    {"unload", true, UNLOAD, 0, {"dlclose"}, ""},
    {"unloadWithoutALibrary", false, UNLOAD, 0, {}, "", {contractBroken("No library loaded")}},
    {"failedUnload", true, UNLOAD, -1, {"dlclose"}, "first", {STUCK}},
};

VESK_TEST_TABLE(SharedObjOperation, callsTheLoaderAndReportsItsFailure, SharedObjTest, OPERATIONS) {
    auto const& row = GetParam();
    EXPECT_FALSE(m_object.isValid());
    if (row.is_loaded) {
        load();
    }
    {
        Calls calls;
        Fault const fault(inject_dlclose, row.fault);
        s_calls = &calls;
        EXPECT_EQ(
            !row.reports.empty() || row.loader_text != nullptr,
            row.path == UNLOAD ? m_object.unload() : m_object.load(row.path));
        s_calls = nullptr;
        EXPECT_EQ(row.calls, calls);
    }
    if (row.loader_text != nullptr) {
        expectReport(SharedObj::ErrorId::LOAD_FAILED, row.loader_text);
        EXPECT_EQ(nullptr, dlerror()) << "the text was taken";
    }
    EXPECT_TRUE(chainIs(row.reports));
    std::string const library = row.library;
    EXPECT_EQ(!library.empty(), m_object.isValid());
    EXPECT_EQ(library == "first", isLoaded(FIRST_LIBRARY));
    EXPECT_EQ(library == "second", isLoaded(SECOND_LIBRARY));
    EXPECT_EQ(row.is_loaded && library != "first" ? 1 : 0, m_unloads);
    EXPECT_EQ(library, library.empty() ? "" : callName(m_object));
    load();
    EXPECT_EQ("first", callName(m_object));
}

TEST_F(SharedObjTest, libraryOfAnotherObjectStaysLoaded) {
    load();
    SharedObj other;
    ASSERT_FALSE(other.load(FIRST_LIBRARY));
    EXPECT_FALSE(m_object.unload());
    EXPECT_EQ("first", callName(other));
}

TEST_F(SharedObjTest, resolvesFunctionsAndVariables) {
    load();
    void* address = nullptr;
    EXPECT_FALSE(m_object.resolve("library_number", address));
    ASSERT_NE(nullptr, address);
    EXPECT_EQ(42, *static_cast<int*>(address));
    EXPECT_FALSE(m_object.resolve("getLibraryName", address));
    ASSERT_NE(nullptr, address);
    EXPECT_STREQ("first", reinterpret_cast<char const* (*)()>(address)());
}

TEST_F(SharedObjTest, failedResolveLeavesTheAddress) {
    void* address = &address;
    EXPECT_TRUE(m_object.resolve("getLibraryName", address));
    EXPECT_TRUE(isContractBroken("No library loaded"));
    load();
    EXPECT_TRUE(m_object.resolve(nullptr, address));
    EXPECT_TRUE(isContractBroken("NULL pointer given for symbol"));
    EXPECT_TRUE(m_object.resolve("no_such_symbol", address));
    std::string const text = std::string(FIRST_LIBRARY) + ": undefined symbol: no_such_symbol";
    EXPECT_TRUE(
        chainIs({{SharedObj::ErrorId::RESOLVE_FAILED, rowText(SharedObj::ErrorId::RESOLVE_FAILED, text)}}));
    EXPECT_EQ(&address, address);
}

TEST_F(SharedObjTest, symbolWithTheValueNullIsFoundDespiteAnEarlierTextOfTheLoader) {
    load();
    for (char const* const loader_text : {static_cast<char const*>(nullptr), "earlier failure"}) {
        s_loader_text = loader_text;
        void* address = &address;
        EXPECT_FALSE(m_object.resolve("library_nothing", address)) << (loader_text != nullptr);
        EXPECT_EQ(nullptr, address) << (loader_text != nullptr);
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(SharedObjTest, lastCopyUnloads) {
    load();
    auto first = std::make_unique<SharedObj>(m_object);
    auto second = std::make_unique<SharedObj>(*first);
    m_object = SharedObj();
    first.reset();
    m_object = *second;
    second.reset();
    EXPECT_EQ(0, m_unloads);
    EXPECT_EQ("first", callName(m_object));
    m_object = SharedObj();
    EXPECT_EQ(1, m_unloads);
    EXPECT_FALSE(m_object.isValid());
}

TEST_F(SharedObjTest, copiesCanBeDestroyedInDifferentThreads) {
    load();
    runInThreads(4, [copy = m_object](int) {
        for (int round = 0; round < 100; ++round) {
            SharedObj const another(copy);
            EXPECT_EQ("first", callName(another));
        }
    });
    EXPECT_EQ(0, m_unloads);
    m_object = SharedObj();
    EXPECT_EQ(1, m_unloads);
}

TEST_F(SharedObjTest, destructorOfAnEmptyObjectDoesNotCallTheLoader) {
    Calls calls;
    s_calls = &calls;
    { SharedObj const object; }
    s_calls = nullptr;
    EXPECT_TRUE(calls.empty());
}

TEST_F(SharedObjTest, failedUnloadOfTheDestructorIsAWarningAndLeavesNothingPending) {
    EventRecorder const recorder;
    auto object = std::make_unique<SharedObj>();
    ASSERT_FALSE(object->load(FIRST_LIBRARY));
    char expected[128];
    snprintf(
        expected, sizeof expected,
        "WARNING framework/src/vesk/posix/SharedObj destroy: Error unloading shared library object @%p",
        static_cast<void*>(object.get()));
    {
        Fault const fault(inject_dlclose, -1);
        object.reset();
    }
    EXPECT_EQ(expected, recorder.getText());
    EXPECT_TRUE(chainIs({}));
    // Unloads the library in place of the object.
    void* const handle = dlopen(FIRST_LIBRARY, RTLD_LAZY);
    dlclose(handle);
    dlclose(handle);
}

TEST_F(SharedObjTest, unloadThatTheRealLoaderRefusesIsReported) {
    // The library stays loaded as a part of another one, even if it is closed too often.
    SharedObj user;
    ASSERT_FALSE(user.load(USER_LIBRARY));
    ASSERT_FALSE(m_object.load(SECOND_LIBRARY));
    void* const handle = dlopen(SECOND_LIBRARY, RTLD_LAZY);
    EXPECT_EQ(0, dlclose(handle));
    EXPECT_EQ(0, dlclose(handle));
    EXPECT_TRUE(m_object.unload());
    expectReport(SharedObj::ErrorId::UNLOAD_FAILED, SECOND_LIBRARY);
    EXPECT_TRUE(m_object.isValid());
    EXPECT_EQ(handle, dlopen(SECOND_LIBRARY, RTLD_LAZY)) << "for the object to close";
    EXPECT_FALSE(m_object.unload());
}

} // namespace
