#pragma once

#include <vesk/Export.h>
#include <vesk/RefCounted.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// Loads a shared object while the process runs and finds its symbols.
///
///     vesk::SharedObj plugin;
///     void* address = nullptr;
///     if (!plugin.load("/opt/plugins/libcodec.so") && !plugin.resolve("codec_open", address)) {
///         auto const open = reinterpret_cast<CodecOpen*>(address);
///         ...
///     }
///
/// A copy stands for the same shared object, which is unloaded when the last of the copies goes. What they share is
/// settled by the copying: load before you copy, and neither `load` nor `unload` while there are copies, which would be
/// left with what is gone.
///
/// There is no lock: one object belongs to one thread at a time. Different threads may have copies of it.
class VESK_API SharedObj : public RefCounted {
public:
    /// Failures of shared objects. Derives from `SysError`. The argument is the text of the dynamic loader.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        LOAD_FAILED = 0,    ///< Loading the shared object failed.
        UNLOAD_FAILED = 1,  ///< Unloading the shared object failed.
        RESOLVE_FAILED = 2, ///< The shared object has no such symbol.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// What the file name of a library begins and ends with: "lib" and ".so".
    static char const* const SharedLibraryPrefix;
    static char const* const SharedLibrarySuffix;

    /// Nothing is loaded yet.
    SharedObj() = default;
    SharedObj(SharedObj const&) = default;
    SharedObj& operator=(SharedObj const&) = default;

    /// The last copy unloads what is loaded. A failure of that is a warning of `std::GlobalErrorHandler`.
    VESK_API_INLINE ~SharedObj() override { decrement(); }

    /// Whether something is loaded.
    VESK_API_INLINE bool isValid() const noexcept { return handle != nullptr; }

    /// Loads a shared object (`dlopen` with `RTLD_LAZY`), and what it depends on. Runs its initialisers; blocks for the
    /// file system. What was loaded before is unloaded first, and stays unloaded if the new one cannot be loaded. Not a
    /// cancellation point, whatever the initialisers do.
    /// @param path  a file, with a '/' in it, or a name that the dynamic loader looks for
    /// @return true on failure: `ErrorId::LOAD_FAILED`; on top of the reports of `unload` if it was that, and the old one is still
    ///         loaded; `CommonErrorId::CONTRACT_BROKEN` if `path` is null
    bool load(char const* path);

    /// Lets go of what is loaded (`dlclose`): it leaves the process unless others have loaded it too. Not a cancellation
    /// point, whatever its finalisers do.
    /// @return true on failure: `ErrorId::UNLOAD_FAILED`, it is still loaded; `CommonErrorId::CONTRACT_BROKEN` if nothing is loaded
    bool unload();

    /// Finds a function or a variable by its name (`dlsym`), also in what the shared object depends on.
    /// @param symbol   its name as the linker knows it: C++ functions need `extern "C"`
    /// @param address  set to where it is, which is null for a symbol whose value is null; not touched on failure
    /// @return true on failure: `ErrorId::RESOLVE_FAILED`; `CommonErrorId::CONTRACT_BROKEN` if nothing is loaded or `symbol` is null
    bool resolve(char const* symbol, void*& address) const;

protected:
    int destroy() override;

private:
    void* handle = nullptr;
};

} // namespace vesk
