// What the tests of SharedObj load, built under two names.

extern "C" {

__attribute__((visibility("default"))) char const* getLibraryName() {
    return LIBRARY_NAME;
}

__attribute__((visibility("default"))) int library_number = 42;

/// Where the library tells that it leaves the process.
__attribute__((visibility("default"))) int* library_unloads = nullptr;

__attribute__((destructor)) static void tellUnload() {
    if (library_unloads != nullptr) {
        ++*library_unloads;
    }
}
}

// A symbol that is there, and whose value is null.
asm(".globl library_nothing\n"
    ".set library_nothing, 0\n");
