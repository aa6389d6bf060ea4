// The library that the tests of SharedObj load. Built under several names.

extern "C" {

__attribute__((visibility("default"))) char const* getLibraryName() {
    return LIBRARY_NAME;
}

__attribute__((visibility("default"))) int library_number = 42;

/// The counter to increment when the library is unloaded.
__attribute__((visibility("default"))) int* library_unloads = nullptr;

__attribute__((destructor)) static void countUnload() {
    if (library_unloads != nullptr) {
        ++*library_unloads;
    }
}
}

// A symbol with the value null.
asm(".globl library_nothing\n"
    ".set library_nothing, 0\n");
