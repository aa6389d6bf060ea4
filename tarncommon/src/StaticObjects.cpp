// Part of each library: when its static objects are destroyed.
//
// The end of the process leaves them as they are. Other threads run on while `exit` is at work, and may use any class up to
// the last moment. Unloading the library destroys them, so that whoever loads it again and again loses nothing.
//
// The compiler registers the destructor of each static object with the C library, which runs it in both cases. The linker
// redirects the library's registrations to this file (--wrap), which keeps a list of its own. TARN_LIBRARY_SYMBOL is a name
// that only this library exports.

#include <tarncommon/Export.h>

#include <atomic>
#include <cstdlib>
#include <dlfcn.h>

namespace {

using Destructor = void (*)(void*);

struct Registration {
    Destructor destructor;
    void* object;
    Registration* next;
};

// Function-local objects may be made by several threads at once.
TARN_CONSTANT_INIT std::atomic<Registration*> s_last{nullptr};
TARN_CONSTANT_INIT std::atomic<bool> s_process_ends{false};
TARN_CONSTANT_INIT bool s_comes_with_the_program = false;

int add(Destructor destructor, void* object) noexcept {
    auto* const registration = static_cast<Registration*>(malloc(sizeof(Registration)));
    if (registration == nullptr) {
        return -1;
    }
    *registration = {destructor, object, s_last.load(std::memory_order_relaxed)};
    while (!s_last.compare_exchange_weak(registration->next, registration)) {}
    return 0;
}

} // namespace

extern "C" {

extern void* __dso_handle;

int __real___cxa_atexit(Destructor destructor, void* object, void* library);

/// The destructor of what <iostream> puts into each source file that includes it: it counts the users of the standard
/// streams and flushes them with the last one.
void tarn_end_of_stream_user(void*) __asm__("_ZNSt8ios_base4InitD1Ev");

int __wrap___cxa_atexit(Destructor destructor, void* object, void* library) {
    if (destructor == tarn_end_of_stream_user) {
        return __real___cxa_atexit(destructor, object, library);
    }
    return add(destructor, object);
}

/// The same on 32-bit ARM, whose ABI has a name and an order of its own.
int __wrap___aeabi_atexit(void* object, Destructor destructor, void* library) {
    return __wrap___cxa_atexit(destructor, object, library);
}

} // extern "C"

namespace {

/// Whether the library was loaded before `main`: then it stays to the end. A library that is loaded later comes into the
/// scope of the program when its initialisers have run, if at all.
bool comesWithTheProgram() noexcept {
    void* const program = dlopen(nullptr, RTLD_LAZY);
    if (program == nullptr) {
        return true;
    }
    // It need not lie in this library: the program may have a copy.
    bool const found = dlsym(program, TARN_LIBRARY_SYMBOL) != nullptr;
    dlclose(program);
    return found;
}

/// For a library that is loaded later the order of the two functions at the end tells what happens: `exit` calls what was
/// registered before it comes to the functions of the libraries, and unloading goes the other way round.
__attribute__((constructor)) void watchTheProcess() {
    s_comes_with_the_program = comesWithTheProgram();
    __real___cxa_atexit([](void*) { s_process_ends = true; }, nullptr, &__dso_handle);
}

__attribute__((destructor)) void endOfTheLibrary() {
    if (s_comes_with_the_program || s_process_ends) {
        return;
    }
    while (Registration* const registration = s_last) {
        s_last = registration->next;
        registration->destructor(registration->object);
        free(registration);
    }
}

} // namespace
