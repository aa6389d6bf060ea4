#include <vesk/SharedObj.h>

#include "vesk/common/Report.h"

#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <dlfcn.h>
#include <iterator>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SharedObj";

constexpr std::ErrorID ROWS[] = {
    {0, "Failed to load shared object: %s", 1},
    {1, "Failed to unload shared object: %s", 1},
    {2, "Failed to resolve symbol in shared object: %s", 1},
};

bool reportMisuse(Place place, char const* text) noexcept {
    report(place, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, text);
    return true;
}

} // namespace

TARN_CONSTANT_INIT std::ErrorType const SharedObj::Error(ROWS, std::size(ROWS), SysError);
TARN_CONSTANT_INIT char const* const SharedObj::SharedLibraryPrefix = "lib";
TARN_CONSTANT_INIT char const* const SharedObj::SharedLibrarySuffix = ".so";

bool SharedObj::load(char const* path) {
    if (isValid() && unload()) {
        report(SOURCE, Chain::ON_TOP, ErrorId::LOAD_FAILED, "Unload of previously loaded library failed");
        return true;
    }
    if (path == nullptr) {
        return reportMisuse(SOURCE, "NULL pointer given for path");
    }
    // The library's constructors run inside this call, while the loader's lock is held.
    CancellationOff const cancellation_off;
    handle = dlopen(path, RTLD_LAZY);
    if (handle == nullptr) {
        report(SOURCE, Chain::NEW, ErrorId::LOAD_FAILED, dlerror());
        return true;
    }
    return false;
}

bool SharedObj::unload() {
    if (!isValid()) {
        return reportMisuse(SOURCE, "No library loaded");
    }
    // The library's destructors run inside this call, while the loader's lock is held.
    CancellationOff const cancellation_off;
    if (dlclose(handle) != 0) {
        report(SOURCE, Chain::NEW, ErrorId::UNLOAD_FAILED, dlerror());
        return true;
    }
    handle = nullptr;
    return false;
}

bool SharedObj::resolve(char const* symbol, void*& address) const {
    if (!isValid()) {
        return reportMisuse(SOURCE, "No library loaded");
    }
    if (symbol == nullptr) {
        return reportMisuse(SOURCE, "NULL pointer given for symbol");
    }
    // A null address is a valid result: only an error text that was set by this call indicates a failure.
    dlerror();
    void* const found = dlsym(handle, symbol);
    if (found == nullptr) {
        if (char const* const text = dlerror()) {
            report(SOURCE, Chain::NEW, ErrorId::RESOLVE_FAILED, text);
            return true;
        }
    }
    address = found;
    return false;
}

int SharedObj::destroy() {
    KeptErrorChain const kept_chain;
    if (isValid() && unload()) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "destroy", "Error unloading shared library object @%p",
            static_cast<void*>(this));
        std::ErrorStorage::ack();
    }
    return 0;
}

} // namespace vesk
