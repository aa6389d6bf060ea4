#pragma once

#include <vesk/Export.h>

namespace vesk {

/// Converts a client's name of a message queue, semaphore or shared memory to the system's name: "/" and the
/// name. The classes with such names call it themselves, with a buffer of `IPC_NAME_SIZE`. Callers need it
/// only to access an object of that name by other means.
///
///     char name[vesk::IPC_NAME_SIZE];
///     if (vesk::transformToIPCIdentifier("orders", name, sizeof name)) { ... } // name is "/orders"
///
/// An empty name succeeds and gives "/". Makes no system call. May be called from any thread.
///
/// @param name    the client's name, of at most `size` - 2 characters and without any "/", including a
///                leading one
/// @param result  receives the system's name. On failure it holds the part of the name before the "/", or as
///                much as fits. If `name` is null or `size` is 0, it is not changed
/// @param size    bytes at `result`, including the terminating null byte; must not be 1
/// @return true on failure: `CommonErrorId::INVALID_ARGUMENT` if `name` or `result` is null, `size` is 0, or
///         the name contains a "/"; `CommonErrorId::UNSUPPORTED_VALUE` if the name is too long
VESK_API bool transformToIPCIdentifier(char const* name, char* result, unsigned int size);

/// The size of the buffers for system names. A client's name has at most 254 characters.
constexpr unsigned int IPC_NAME_SIZE = 256;

} // namespace vesk
