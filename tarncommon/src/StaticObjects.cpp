// Compiled into each library: decides when its static objects are destroyed.
//
// The end of the process does not destroy them: other threads still run during `exit`, and may use any class
// up to the last moment. Unloading the library destroys them, so that loading it again and again leaks
// nothing.
//
// The compiler registers the destructor of each static object with the C library, which runs it in both
// cases. The linker redirects the library's registrations to this file (--wrap), which keeps a list of its
// own. TARN_LIBRARY_SYMBOL is a name that only this library exports.

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

// Several threads may construct function-local objects at once.
TARN_CONSTANT_INIT std::atomic<Registration*> s_last{nullptr};
TARN_CONSTANT_INIT std::atomic<bool> s_process_ends{false};
TARN_CONSTANT_INIT bool s_comes_with_the_program = false;

int add(Destructor destructor, void* object) noexcept {
    auto* const registration = static_cast<Registration*>(malloc(sizeof(Registration)));
    if (registration == nullptr) {
        return -1; // LCOV_EXCL_LINE: without memory while the library is loaded
    }
    *registration = {destructor, object, s_last.load(std::memory_order_relaxed)};
    while (!s_last.compare_exchange_weak(registration->next, registration)) {}
    return 0;
}

} // namespace

extern "C" {

extern void* __dso_handle;

int __real___cxa_atexit(Destructor destructor, void* object, void* library);

/// The destructor of the object that <iostream> puts into each source file that includes it. It counts the
/// users of the standard streams and flushes them when the last user is destroyed, so it stays registered
/// with the C library.
void tarn_end_of_stream_user(void*) __asm__("_ZNSt8ios_base4InitD1Ev");

int __wrap___cxa_atexit(Destructor destructor, void* object, void* library) {
    if (destructor == tarn_end_of_stream_user) {
        return __real___cxa_atexit(destructor, object, library);
    }
    return add(destructor, object);
}

#ifdef __arm__
/// The registration function of 32-bit ARM. Its ABI defines another name and another order of arguments.
int __wrap___aeabi_atexit(void* object, Destructor destructor, void* library) {
    return __wrap___cxa_atexit(destructor, object, library);
}
#endif

} // extern "C"

namespace {

/// Returns whether the library was loaded before `main`, in which case it stays loaded to the end. A library
/// that is loaded later enters the scope of the program only after its initializers have run, if at all.
bool comesWithTheProgram() noexcept {
    void* const program = dlopen(nullptr, RTLD_LAZY);
    if (program == nullptr) {
        return true; // LCOV_EXCL_LINE: the loader always knows the program
    }
    // The address of the symbol is not checked: the program may have a copy of it.
    bool const found = dlsym(program, TARN_LIBRARY_SYMBOL) != nullptr;
    dlclose(program);
    return found;
}

/// For a library that is loaded later, the order of this file's two functions at the end says what happens.
/// `exit` calls registered functions before the destructor functions of libraries. Unloading calls the
/// destructor functions first.
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
