#include "support/ErrnoCases.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NamedRow.h"
#include "support/RunInThreads.h"

#include <vesk/RefCounted.h>
#include <vesk/SharedObj.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <dlfcn.h>
#include <memory>
#include <type_traits>
#include <utility>

namespace {

/// Receives the calls of the dynamic loader in order, if it is not null.
std::vector<std::string>* s_calls = nullptr;
/// The next text of the loader; null leaves the text to the loader.
char const* s_loader_text = nullptr;

} // namespace

support::Injected inject_dlopen("dlopen");
extern "C" VESK_UNWATCHED void* dlopen(char const* path, int flags) {
    if (s_calls != nullptr) {
        s_calls->push_back("dlopen " + std::to_string(flags));
    }
    return reinterpret_cast<void* (*)(char const*, int)>(inject_dlopen.getReal())(path, flags);
}

support::Injected inject_dlclose("dlclose");
extern "C" VESK_UNWATCHED int dlclose(void* handle) {
    if (s_calls != nullptr) {
        s_calls->emplace_back("dlclose");
    }
    int error = 0;
    if (inject_dlclose.fails(error)) {
        s_loader_text = "stuck";
        return error;
    }
    return reinterpret_cast<int (*)(void*)>(inject_dlclose.getReal())(handle);
}

support::Injected inject_dlerror("dlerror");
extern "C" VESK_UNWATCHED char* dlerror() {
    if (s_loader_text != nullptr) {
        return const_cast<char*>(std::exchange(s_loader_text, nullptr));
    }
    return reinterpret_cast<char* (*)()>(inject_dlerror.getReal())();
}

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

/// Makes a library increment `count` when it is unloaded.
void countUnloads(SharedObj const& object, int& count) {
    void* address = nullptr;
    ASSERT_FALSE(object.resolve("library_unloads", address));
    *static_cast<int**>(address) = &count;
}

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

    /// Loads the first library.
    void load() { ASSERT_FALSE(m_object.load(FIRST_LIBRARY)); }

    /// Loads a library. Returns the calls of the loader.
    Calls recordLoad(char const* path) {
        Calls calls;
        s_calls = &calls;
        EXPECT_EQ(path == nullptr, m_object.load(path));
        s_calls = nullptr;
        return calls;
    }

    SharedObj m_object;
};

TEST_F(SharedObjTest, isACountedHandleWithOneField) {
    static_assert(std::is_base_of_v<vesk::RefCounted, SharedObj>);
    static_assert(sizeof(SharedObj) == sizeof(vesk::RefCounted) + sizeof(void*));
    static_assert(std::is_copy_constructible_v<SharedObj> && std::is_copy_assignable_v<SharedObj>);
}

TEST_F(SharedObjTest, prefixAndSuffixMakeTheFileNameOfALibrary) {
    EXPECT_STREQ("lib", SharedObj::SharedLibraryPrefix);
    EXPECT_STREQ(".so", SharedObj::SharedLibrarySuffix);
    static_assert(std::is_same_v<char const* const, decltype(SharedObj::SharedLibraryPrefix)>);
    static_assert(std::is_same_v<char const* const, decltype(SharedObj::SharedLibrarySuffix)>);
}

TEST_F(SharedObjTest, reportsHaveTheirTextsAndTheSystemFamilyAsParent) {
    EXPECT_EQ("Failed to load shared object: x", rowText(SharedObj::ErrorId::LOAD_FAILED, "x"));
    EXPECT_EQ("Failed to unload shared object: x", rowText(SharedObj::ErrorId::UNLOAD_FAILED, "x"));
    EXPECT_EQ(
        "Failed to resolve symbol in shared object: x", rowText(SharedObj::ErrorId::RESOLVE_FAILED, "x"));
    EXPECT_TRUE(m_object.load("/nonexistent"));
    EXPECT_TRUE(std::ErrorStorage::isA(SharedObj::Error));
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError));
    std::ErrorStorage::ack();
}

TEST_F(SharedObjTest, isNotValidBeforeTheFirstLoad) {
    EXPECT_FALSE(m_object.isValid());
}

TEST_F(SharedObjTest, loadsLazily) {
    EXPECT_EQ(Calls{"dlopen " + std::to_string(RTLD_LAZY)}, recordLoad(FIRST_LIBRARY));
    EXPECT_TRUE(m_object.isValid());
    EXPECT_TRUE(isLoaded(FIRST_LIBRARY));
    EXPECT_EQ("first", callName(m_object));
    EXPECT_TRUE(chainIs({}));
}

struct LoadRow : NamedRow {
    bool is_loaded;
    char const* path;
    char const* loader_text = "";
};

class SharedObjLoad : public SharedObjTest, public testing::WithParamInterface<LoadRow> {};

TEST_P(SharedObjLoad, failsWithTheLoadersTextAndLeavesTheObjectEmpty) {
    if (GetParam().is_loaded) {
        load();
    }
    EXPECT_TRUE(m_object.load(GetParam().path));
    EXPECT_FALSE(m_object.isValid());
    EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
    ASSERT_TRUE(std::ErrorStorage::isError(true));
    std::string const text = std::ErrorStorage::get()->getText();
    EXPECT_EQ(0u, text.find(rowText(SharedObj::ErrorId::LOAD_FAILED, GetParam().loader_text))) << text;
    EXPECT_TRUE(chainIs({SharedObj::ErrorId::LOAD_FAILED}));
    EXPECT_EQ(nullptr, dlerror()) << "the text was taken";
}

INSTANTIATE_TEST_SUITE_P(
    All, SharedObjLoad,
    rowsOf<LoadRow>({
        {"missingFile", false, "/nonexistent/libnothing.so", "/nonexistent/libnothing.so: cannot open"},
        {"missingFileIntoALoadedObject", true, "/nonexistent/libnothing.so"},
        {"fileThatIsNoLibrary", false, "/proc/self/stat"},
    }),
    byName);

TEST_F(SharedObjTest, loadOfNullUnloadsAndFails) {
    for (bool const is_loaded : {false, true}) {
        if (is_loaded) {
            load();
        }
        EXPECT_EQ(is_loaded ? Calls{"dlclose"} : Calls{}, recordLoad(nullptr));
        EXPECT_FALSE(m_object.isValid());
        EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
        EXPECT_TRUE(isContractBroken("NULL pointer given for path"));
    }
}

TEST_F(SharedObjTest, loadIntoALoadedObjectUnloadsTheOldLibraryFirst) {
    load();
    int unloads = 0;
    countUnloads(m_object, unloads);
    EXPECT_EQ((Calls{"dlclose", "dlopen " + std::to_string(RTLD_LAZY)}), recordLoad(SECOND_LIBRARY));
    EXPECT_EQ(1, unloads);
    EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
    EXPECT_EQ("second", callName(m_object));
}

TEST_F(SharedObjTest, loadIntoAnObjectThatCannotUnloadFailsAndKeepsTheOldLibrary) {
    load();
    {
        Fault const fault(inject_dlclose, -1);
        EXPECT_TRUE(m_object.load(SECOND_LIBRARY));
    }
    EXPECT_TRUE(chainIs(
        {{SharedObj::ErrorId::UNLOAD_FAILED, "Failed to unload shared object: stuck"},
         {SharedObj::ErrorId::LOAD_FAILED,
          "Failed to load shared object: Unload of previously loaded library failed"}}));
    EXPECT_EQ("first", callName(m_object));
    EXPECT_FALSE(isLoaded(SECOND_LIBRARY));
}

TEST_F(SharedObjTest, unloadsAndLoadsAgain) {
    load();
    EXPECT_FALSE(m_object.unload());
    EXPECT_FALSE(m_object.isValid());
    EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
    load();
    EXPECT_EQ("first", callName(m_object));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, unloadWithoutALibraryFails) {
    EXPECT_TRUE(m_object.unload());
    EXPECT_TRUE(isContractBroken("No library loaded"));
    load();
    EXPECT_FALSE(m_object.unload());
    EXPECT_TRUE(m_object.unload());
    EXPECT_TRUE(isContractBroken("No library loaded"));
}

TEST_F(SharedObjTest, failedUnloadKeepsTheLibrary) {
    load();
    {
        Fault const fault(inject_dlclose, -1);
        EXPECT_TRUE(m_object.unload());
    }
    EXPECT_TRUE(chainIs({{SharedObj::ErrorId::UNLOAD_FAILED, "Failed to unload shared object: stuck"}}));
    EXPECT_TRUE(m_object.isValid());
    EXPECT_EQ("first", callName(m_object));
    EXPECT_FALSE(m_object.unload());
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
    EXPECT_TRUE(chainIs({}));
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
        EXPECT_FALSE(m_object.resolve("library_nothing", address));
        EXPECT_EQ(nullptr, address);
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(SharedObjTest, lastCopyUnloads) {
    int unloads = 0;
    auto first = std::make_unique<SharedObj>();
    ASSERT_FALSE(first->load(FIRST_LIBRARY));
    countUnloads(*first, unloads);
    auto second = std::make_unique<SharedObj>(*first);
    m_object = *second;
    first.reset();
    second.reset();
    EXPECT_EQ(0, unloads);
    EXPECT_EQ("first", callName(m_object));
    m_object = SharedObj();
    EXPECT_EQ(1, unloads);
    EXPECT_FALSE(m_object.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, copiesCanBeDestroyedInDifferentThreads) {
    load();
    int unloads = 0;
    countUnloads(m_object, unloads);
    runInThreads(4, [copy = m_object](int) {
        for (int round = 0; round < 100; ++round) {
            SharedObj const another(copy);
            EXPECT_EQ("first", callName(another));
        }
    });
    EXPECT_EQ(0, unloads);
    m_object = SharedObj();
    EXPECT_EQ(1, unloads);
}

TEST_F(SharedObjTest, destructorOfAnEmptyObjectDoesNotCallTheLoader) {
    std::vector<std::string> calls;
    s_calls = &calls;
    { SharedObj const object; }
    s_calls = nullptr;
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(chainIs({}));
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
    ASSERT_TRUE(std::ErrorStorage::isError(true));
    std::string const text = std::ErrorStorage::get()->getText();
    EXPECT_EQ(0u, text.find("Failed to unload shared object: " + std::string(SECOND_LIBRARY))) << text;
    EXPECT_TRUE(chainIs({SharedObj::ErrorId::UNLOAD_FAILED}));
    EXPECT_TRUE(m_object.isValid());
    EXPECT_EQ(handle, dlopen(SECOND_LIBRARY, RTLD_LAZY)) << "for the object to close";
    EXPECT_FALSE(m_object.unload());
}

} // namespace
