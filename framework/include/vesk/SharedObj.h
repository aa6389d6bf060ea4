#pragma once

#include <vesk/Export.h>
#include <vesk/RefCounted.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk {

/// A shared object that is loaded at run time, and access to its symbols.
///
///     vesk::SharedObj plugin;
///     void* address = nullptr;
///     if (!plugin.load("/opt/plugins/libcodec.so") && !plugin.resolve("codec_open", address)) {
///         auto const open = reinterpret_cast<CodecOpen*>(address);
///         ...
///     }
///
/// Copies refer to the same shared object, which is unloaded when the last copy is destroyed. A copy takes
/// the state at the moment of copying. Therefore load before copying, and call neither `load` nor `unload`
/// while there are copies: they would refer to an unloaded object.
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

    /// @{
    /// Prefix and suffix of the file name of a library: "lib" and ".so".
    static char const* const SharedLibraryPrefix;
    static char const* const SharedLibrarySuffix;
    /// @}

    /// @{
    /// Constructs an object without a shared object.
    SharedObj() = default;
    SharedObj(SharedObj const&) = default;
    SharedObj& operator=(SharedObj const&) = default;
    /// @}

    /// Unloads the shared object if this is the last copy. A failure gives only a warning of
    /// `std::GlobalErrorHandler`.
    VESK_API_INLINE ~SharedObj() override { decrement(); }

    /// Returns whether a shared object is loaded.
    VESK_API_INLINE bool isValid() const noexcept { return handle != nullptr; }

    /// Loads a shared object and its dependencies (`dlopen` with `RTLD_LAZY`). Runs their initializers.
    /// Blocks for the file system. First unloads the previous one, which stays unloaded if loading fails. Not
    /// a cancellation point, whatever the initializers do.
    /// @param path  a file, if it contains a "/", else a name that the dynamic loader searches for
    /// @return true on failure: `ErrorId::LOAD_FAILED`; if unloading the previous one fails, which then stays
    ///         loaded, `ErrorId::LOAD_FAILED` on top of the reports of `unload`;
    ///         `CommonErrorId::CONTRACT_BROKEN` if `path` is null
    [[nodiscard]] bool load(char const* path);

    /// Releases the shared object (`dlclose`). It stays in the process while other objects have loaded it.
    /// Not a cancellation point, whatever its finalizers do. May fail while another thread ends the process: the C
    /// library then counts the users of shared objects without a lock.
    /// @return true on failure: `ErrorId::UNLOAD_FAILED`, with the shared object still loaded;
    ///         `CommonErrorId::CONTRACT_BROKEN` if nothing is loaded
    [[nodiscard]] bool unload();

    /// Finds a function or a variable by its name (`dlsym`), also in the dependencies of the shared object.
    /// @param symbol   the name as the linker sees it: C++ functions need `extern "C"`
    /// @param address  set to the address, which is null for a symbol with a null value; not changed on
    ///                 failure
    /// @return true on failure: `ErrorId::RESOLVE_FAILED`; `CommonErrorId::CONTRACT_BROKEN` if nothing is
    ///         loaded or `symbol` is null
    [[nodiscard]] bool resolve(char const* symbol, void*& address) const;

protected:
    int destroy() override;

private:
    void* handle = nullptr;
};

} // namespace vesk
