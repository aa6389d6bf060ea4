#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/RefCounted.h>
#include <vesk/SharedObj.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <dlfcn.h>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

/// The calls of the dynamic loader, in order, while somebody wants to know them.
std::vector<std::string>* s_calls = nullptr;
/// What the loader says next; null leaves that to itself.
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

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::rowText;
using vesk::SharedObj;
using vesk::SysError;

support::ExpectedReport misuse(char const* text) {
    return {CommonError, CommonErrorId::CONTRACT_BROKEN, rowText(CommonErrorId::CONTRACT_BROKEN, text)};
}

/// Whether the process has a library.
bool isLoaded(char const* path) {
    void* const handle = dlopen(path, RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

/// The name that a library tells of itself.
std::string callName(SharedObj const& object) {
    void* address = nullptr;
    if (object.resolve("getLibraryName", address)) {
        return "nothing";
    }
    return reinterpret_cast<char const* (*)()>(address)();
}

/// Has a library count into `count` when it leaves the process.
void countUnloads(SharedObj const& object, int& count) {
    void* address = nullptr;
    ASSERT_FALSE(object.resolve("library_unloads", address));
    *static_cast<int**>(address) = &count;
}

/// A test ends with the libraries gone, whatever it was about.
class SharedObjTest : public testing::Test {
protected:
    // The first call of a replaced function looks for the real one, and that clears the loader's text.
    SharedObjTest() { dlerror(); }
    ~SharedObjTest() override {
        EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
        EXPECT_FALSE(isLoaded(SECOND_LIBRARY));
    }
};

// ---- what it is ----

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

TEST_F(SharedObjTest, rowsOfItsFamily) {
    EXPECT_EQ("Failed to load shared object: x", rowText(SharedObj::ErrorId::LOAD_FAILED, "x"));
    EXPECT_EQ("Failed to unload shared object: x", rowText(SharedObj::ErrorId::UNLOAD_FAILED, "x"));
    EXPECT_EQ(
        "Failed to resolve symbol in shared object: x", rowText(SharedObj::ErrorId::RESOLVE_FAILED, "x"));
    SharedObj object;
    EXPECT_TRUE(object.load("/nonexistent"));
    EXPECT_TRUE(std::ErrorStorage::isA(SharedObj::Error));
    EXPECT_TRUE(std::ErrorStorage::isA(SysError));
    std::ErrorStorage::ack();
}

// ---- loading ----

TEST_F(SharedObjTest, isNotValidBeforeItHasLoaded) {
    SharedObj const object;
    EXPECT_FALSE(object.isValid());
}

TEST_F(SharedObjTest, loadsLazily) {
    SharedObj object;
    std::vector<std::string> calls;
    s_calls = &calls;
    EXPECT_FALSE(object.load(FIRST_LIBRARY));
    s_calls = nullptr;
    EXPECT_EQ(std::vector<std::string>{"dlopen " + std::to_string(RTLD_LAZY)}, calls);
    EXPECT_TRUE(object.isValid());
    EXPECT_TRUE(isLoaded(FIRST_LIBRARY));
    EXPECT_EQ("first", callName(object));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, loadingWhatIsNotThereFailsWithTheLoadersText) {
    SharedObj object;
    EXPECT_TRUE(object.load("/nonexistent/libnothing.so"));
    EXPECT_FALSE(object.isValid());
    ASSERT_TRUE(std::ErrorStorage::isError(true));
    std::string const text = std::ErrorStorage::get()->getText();
    EXPECT_EQ(0u, text.find("Failed to load shared object: /nonexistent/libnothing.so: cannot open")) << text;
    EXPECT_TRUE(chainIs({{SharedObj::ErrorId::LOAD_FAILED}}));
    EXPECT_EQ(nullptr, dlerror()) << "the text was taken";
}

TEST_F(SharedObjTest, loadingWhatIsNoLibraryFails) {
    SharedObj object;
    EXPECT_TRUE(object.load("/proc/self/stat"));
    EXPECT_FALSE(object.isValid());
    EXPECT_TRUE(chainIs({{SharedObj::ErrorId::LOAD_FAILED}}));
}

TEST_F(SharedObjTest, loadingNullFails) {
    SharedObj object;
    std::vector<std::string> calls;
    s_calls = &calls;
    EXPECT_TRUE(object.load(nullptr));
    s_calls = nullptr;
    EXPECT_TRUE(calls.empty());
    EXPECT_FALSE(object.isValid());
    EXPECT_TRUE(chainIs({misuse("NULL pointer given for path")}));
}

TEST_F(SharedObjTest, loadingIntoALoadedObjectUnloadsTheOldLibraryFirst) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    int unloads = 0;
    countUnloads(object, unloads);
    std::vector<std::string> calls;
    s_calls = &calls;
    EXPECT_FALSE(object.load(SECOND_LIBRARY));
    s_calls = nullptr;
    EXPECT_EQ((std::vector<std::string>{"dlclose", "dlopen " + std::to_string(RTLD_LAZY)}), calls);
    EXPECT_EQ(1, unloads);
    EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
    EXPECT_EQ("second", callName(object));
}

TEST_F(SharedObjTest, loadingNullIntoALoadedObjectUnloadsAndThenFails) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    EXPECT_TRUE(object.load(nullptr));
    EXPECT_FALSE(object.isValid());
    EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
    EXPECT_TRUE(chainIs({misuse("NULL pointer given for path")}));
}

TEST_F(SharedObjTest, loadingThatFailsLeavesALoadedObjectEmpty) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    EXPECT_TRUE(object.load("/nonexistent/libnothing.so"));
    EXPECT_FALSE(object.isValid());
    EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
    EXPECT_TRUE(chainIs({{SharedObj::ErrorId::LOAD_FAILED}}));
}

TEST_F(SharedObjTest, loadingIntoAnObjectThatCannotUnloadFailsAndKeepsTheOldLibrary) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    {
        Fault const fault(inject_dlclose, -1);
        EXPECT_TRUE(object.load(SECOND_LIBRARY));
    }
    EXPECT_TRUE(chainIs(
        {{SharedObj::ErrorId::UNLOAD_FAILED, "Failed to unload shared object: stuck"},
         {SharedObj::Error, SharedObj::ErrorId::LOAD_FAILED,
          "Failed to load shared object: Unload of previously loaded library failed"}}));
    EXPECT_EQ("first", callName(object));
    EXPECT_FALSE(isLoaded(SECOND_LIBRARY));
}

// ---- unloading ----

TEST_F(SharedObjTest, unloadsAndCanLoadAgain) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    EXPECT_FALSE(object.unload());
    EXPECT_FALSE(object.isValid());
    EXPECT_FALSE(isLoaded(FIRST_LIBRARY));
    EXPECT_FALSE(object.load(FIRST_LIBRARY));
    EXPECT_EQ("first", callName(object));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, unloadingWithNothingLoadedFails) {
    SharedObj object;
    EXPECT_TRUE(object.unload());
    EXPECT_TRUE(chainIs({misuse("No library loaded")}));
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    EXPECT_FALSE(object.unload());
    EXPECT_TRUE(object.unload());
    EXPECT_TRUE(chainIs({misuse("No library loaded")}));
}

TEST_F(SharedObjTest, unloadingThatFailsKeepsTheLibrary) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    {
        Fault const fault(inject_dlclose, -1);
        EXPECT_TRUE(object.unload());
    }
    EXPECT_TRUE(chainIs({{SharedObj::ErrorId::UNLOAD_FAILED, "Failed to unload shared object: stuck"}}));
    EXPECT_TRUE(object.isValid());
    EXPECT_EQ("first", callName(object));
    EXPECT_FALSE(object.unload());
}

TEST_F(SharedObjTest, librarySomebodyElseHasLoadedStays) {
    SharedObj first;
    SharedObj second;
    ASSERT_FALSE(first.load(FIRST_LIBRARY));
    ASSERT_FALSE(second.load(FIRST_LIBRARY));
    EXPECT_FALSE(first.unload());
    EXPECT_EQ("first", callName(second));
}

// ---- symbols ----

TEST_F(SharedObjTest, resolvingBeforeLoadingFails) {
    SharedObj const object;
    void* address = &address;
    EXPECT_TRUE(object.resolve("getLibraryName", address));
    EXPECT_EQ(&address, address);
    EXPECT_TRUE(chainIs({misuse("No library loaded")}));
}

TEST_F(SharedObjTest, resolvesFunctionsAndVariables) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    void* address = nullptr;
    EXPECT_FALSE(object.resolve("library_number", address));
    ASSERT_NE(nullptr, address);
    EXPECT_EQ(42, *static_cast<int*>(address));
    EXPECT_FALSE(object.resolve("getLibraryName", address));
    ASSERT_NE(nullptr, address);
    EXPECT_STREQ("first", reinterpret_cast<char const* (*)()>(address)());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, resolvingWhatIsNotThereFailsAndLeavesTheAddress) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    void* address = &address;
    EXPECT_TRUE(object.resolve("no_such_symbol", address));
    EXPECT_EQ(&address, address);
    EXPECT_TRUE(chainIs(
        {{SharedObj::ErrorId::RESOLVE_FAILED,
          rowText(
              SharedObj::ErrorId::RESOLVE_FAILED,
              std::string(FIRST_LIBRARY) + ": undefined symbol: no_such_symbol")}}));
}

TEST_F(SharedObjTest, symbolWhoseValueIsNullIsFound) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    void* address = &address;
    EXPECT_FALSE(object.resolve("library_nothing", address));
    EXPECT_EQ(nullptr, address);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, whatTheLoaderHadToSayBeforeIsNoFailureOfResolving) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    s_loader_text = "of no concern";
    void* address = &address;
    EXPECT_FALSE(object.resolve("library_nothing", address));
    EXPECT_EQ(nullptr, address);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, resolvingNullFails) {
    SharedObj object;
    ASSERT_FALSE(object.load(FIRST_LIBRARY));
    void* address = &address;
    EXPECT_TRUE(object.resolve(nullptr, address));
    EXPECT_EQ(&address, address);
    EXPECT_TRUE(chainIs({misuse("NULL pointer given for symbol")}));
}

// ---- copies ----

TEST_F(SharedObjTest, lastCopyUnloads) {
    int unloads = 0;
    auto first = std::make_unique<SharedObj>();
    ASSERT_FALSE(first->load(FIRST_LIBRARY));
    countUnloads(*first, unloads);
    auto second = std::make_unique<SharedObj>(*first);
    auto const third = std::make_unique<SharedObj>();
    *third = *second;
    first.reset();
    second.reset();
    EXPECT_EQ(0, unloads);
    EXPECT_EQ("first", callName(*third));
    *third = SharedObj();
    EXPECT_EQ(1, unloads);
    EXPECT_FALSE(third->isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, copiesMayEndInDifferentThreads) {
    int unloads = 0;
    {
        SharedObj object;
        ASSERT_FALSE(object.load(FIRST_LIBRARY));
        countUnloads(object, unloads);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([copy = SharedObj(object)] {
                for (int round = 0; round < 100; ++round) {
                    SharedObj const another(copy);
                    EXPECT_EQ("first", callName(another));
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(0, unloads);
    }
    EXPECT_EQ(1, unloads);
}

TEST_F(SharedObjTest, emptyObjectEndsWithoutACall) {
    std::vector<std::string> calls;
    s_calls = &calls;
    { SharedObj const object; }
    s_calls = nullptr;
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedObjTest, unloadingThatFailsAtTheEndIsAWarningAndLeavesNoError) {
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
    // What the object could not do.
    void* const handle = dlopen(FIRST_LIBRARY, RTLD_LAZY);
    dlclose(handle);
    dlclose(handle);
}

TEST_F(SharedObjTest, loadersOwnRefusalToUnloadIsReported) {
    // As a part of another library it stays even if it is let go of too often.
    SharedObj user;
    ASSERT_FALSE(user.load(USER_LIBRARY));
    SharedObj object;
    ASSERT_FALSE(object.load(SECOND_LIBRARY));
    void* const handle = dlopen(SECOND_LIBRARY, RTLD_LAZY);
    EXPECT_EQ(0, dlclose(handle));
    EXPECT_EQ(0, dlclose(handle));
    EXPECT_TRUE(object.unload());
    ASSERT_TRUE(std::ErrorStorage::isError(true));
    std::string const text = std::ErrorStorage::get()->getText();
    EXPECT_EQ(0u, text.find("Failed to unload shared object: " + std::string(SECOND_LIBRARY))) << text;
    EXPECT_TRUE(chainIs({{SharedObj::ErrorId::UNLOAD_FAILED}}));
    EXPECT_TRUE(object.isValid());
    EXPECT_EQ(handle, dlopen(SECOND_LIBRARY, RTLD_LAZY)) << "what the object's end lets go of";
}

} // namespace
