#pragma once

#include <vesk/Export.h>

namespace vesk {

/// Makes the system's name of a queue, a semaphore or a shared memory out of a client's: "/" and the name. All the
/// classes with such names apply it themselves, to a buffer of `IPC_NAME_SIZE`; it is for those who look for such a name
/// with other means.
///
///     char name[vesk::IPC_NAME_SIZE];
///     if (vesk::transformToIPCIdentifier("orders", name, sizeof name)) { ... } // name is "/orders"
///
/// An empty name succeeds and gives "/". Makes no system call. Any thread may call it.
///
/// @param name    the client's name, of at most `size` - 2 characters and without "/", in front too
/// @param result  gets the system's name. On failure it has the part of it before the "/", or as much as fits; for a
///                null name or a `size` of 0 it is left alone
/// @param size    bytes at `result`, with room for the terminating NUL; never 1
/// @return true on failure: `CommonErrorId::INVALID_ARGUMENT` if `name` or `result` is null, `size` is 0, or there is a "/" in the name;
///         `CommonErrorId::UNSUPPORTED_VALUE` if it is too long
VESK_API bool transformToIPCIdentifier(char const* name, char* result, unsigned int size);

/// The size of the buffers for system names, so a client's name has at most 254 characters.
constexpr unsigned int IPC_NAME_SIZE = 256;

} // namespace vesk
