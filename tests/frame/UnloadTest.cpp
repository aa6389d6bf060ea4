// Not linked with the libraries: it loads them at run time, with the module that uses them.

#include "ModulePath.h"
#include "support/Coverage.h"
#include "support/Descriptors.h"
#include "support/Emulation.h"
#include "support/LibcHeap.h"
#include "support/Threads.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <malloc.h>
#include <vector>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {
std::atomic<long> s_blocks{0};
}

// Counts the blocks itself: the C library's numbers include blocks that threads have freed and keep.
extern "C" {
void* malloc(size_t size) {
    ++s_blocks;
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    ++s_blocks;
    return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
    s_blocks += block == nullptr ? 1 : 0;
    return __libc_realloc(block, size);
}
void* memalign(size_t alignment, size_t size) {
    ++s_blocks;
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void** block, size_t alignment, size_t size) {
    *block = memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}
void free(void* block) {
    s_blocks -= block != nullptr ? 1 : 0;
    __libc_free(block);
}

} // extern "C"

namespace {
long countBlocks() {
    return s_blocks;
}
long countMappedPages() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages;
}
} // namespace

#else

namespace {
/// The sanitizers have a separate heap, which maps memory freely. The address sanitizer finds leaks in it.
long countBlocks() {
    return 0;
}
long countMappedPages() {
    return 0;
}
} // namespace

#endif

namespace {

constexpr int ROUNDS = 100;
constexpr int WARM_UP = 10;
/// Pages by which the end of the heap moves, fewer than one for each round.
constexpr long HEAP_MOVES = 64;

bool isLoaded(char const* library) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) != std::string::npos) {
            return true;
        }
    }
    return false;
}

/// The resources of the process that loading could leak.
struct Resources {
    int threads;
    int descriptors;
    long mapped_pages;
    int free_keys;
    long blocks;
};

int countFreeKeys() {
    std::vector<pthread_key_t> keys;
    for (pthread_key_t key{}; pthread_key_create(&key, nullptr) == 0;) {
        keys.push_back(key);
    }
    for (pthread_key_t const key : keys) {
        pthread_key_delete(key);
    }
    return static_cast<int>(keys.size());
}

Resources count() {
    return {
        support::countThreads(), support::countDescriptors(), countMappedPages(), countFreeKeys(),
        countBlocks()};
}

#if defined(__SANITIZE_THREAD__)
constexpr bool MAY_FORK = false; // Locks of the runtime stay locked in the child.
#else
bool const MAY_FORK = !support::IS_EMULATED;
#endif

template <typename Function, typename... Arguments>
void loadUseAndUnload(char const* name, Arguments... arguments) {
    void* const module = dlopen(MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, module) << dlerror();
    auto const use = reinterpret_cast<Function>(dlsym(module, name));
    ASSERT_NE(nullptr, use);
    use(arguments...);
    // A terminated or detached thread may still run its last steps, which are code of the library.
    support::eventually([] { return support::countThreads() <= support::g_threads_at_start; });
    ASSERT_EQ(0, dlclose(module)) << dlerror();
    for (char const* const library : {"libvesk", "libtarncommon"}) {
        ASSERT_FALSE(isLoaded(library)) << library;
    }
}

template <typename LoadAndUnload>
void expectNoTrace(int rounds, LoadAndUnload const& load_and_unload) {
    ASSERT_FALSE(isLoaded("libvesk")) << "the test itself is linked with it";
    mallopt(M_ARENA_MAX, 1); // Every arena is a mapping.
    Resources before{};
    for (int round = 0; round < rounds; ++round) {
        if (round == WARM_UP) {
            before = count();
        }
        ASSERT_NO_FATAL_FAILURE(load_and_unload());
    }
    Resources const after = count();
    EXPECT_EQ(before.threads, after.threads);
    EXPECT_EQ(before.descriptors, after.descriptors);
    // An emulator maps memory for its translations, and the counters stay mapped.
    if (!support::IS_EMULATED && !support::isCounting()) {
        EXPECT_LE(after.mapped_pages, before.mapped_pages + HEAP_MOVES);
    }
    EXPECT_EQ(before.free_keys, after.free_keys);
    if (!support::isCounting()) {
        EXPECT_EQ(before.blocks, after.blocks);
    }
}

TEST(Unload, leavesNoResource) {
    std::string const prefix = "vesk-unload-" + std::to_string(getpid()) + "-";
    expectNoTrace(
        ROUNDS, [&] { loadUseAndUnload<void (*)(char const*)>("use_the_libraries", prefix.c_str()); });
}

TEST(Unload, leavesNoResourceAfterEachStateOfEachClass) {
    expectNoTrace(WARM_UP + 10, [] { loadUseAndUnload<void (*)(bool)>("live_and_end", MAY_FORK); });
}

} // namespace
