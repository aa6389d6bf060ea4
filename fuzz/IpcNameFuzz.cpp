// Fuzzes the names of objects that processes share: transformToIPCIdentifier, and the addresses of
// Unix-domain sockets. The first byte of the input is the size of the buffer, the rest is a name.

#include "Check.h"

#include <vesk/IPCIdentifier.h>
#include <vesk/UnixSocket.h>

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

using vesk::UnixSocketBase;

void checkIdentifier(std::string const& name, unsigned int size) {
    // A separate allocation, so that the sanitizer detects a write beyond its end.
    std::vector<char> result(size, 'x');
    bool const failed = vesk::transformToIPCIdentifier(name.c_str(), result.data(), size);
    bool const is_valid = size != 0 && name.find('/') == std::string::npos && name.size() + 2 <= size;
    fuzz::check(failed == !is_valid, "a name without a separator that fits is valid");
    fuzz::check(failed == std::ErrorStorage::isError(true), "a failure is reported");
    std::ErrorStorage::ack();
    if (size != 0) {
        std::string const text(result.data(), strnlen(result.data(), size));
        std::string const expected = "/" + name.substr(0, std::min<size_t>(name.find('/'), size - 2));
        fuzz::check(text == expected, "the result is the part that is valid");
    }
}

void checkAddress(std::string const& name, UnixSocketBase::NameSpace name_space) {
    vesk::UnixSocket socket(true, 0, 0, "", "/peer", name_space);
    fuzz::check(socket.isValid(), "there is a socket");
    sockaddr_un address{};
    socklen_t const length = socket.prepareAddress(address, name);
    bool const is_path = name_space == UnixSocketBase::FILESYSTEM;
    size_t const offset = is_path ? 0 : 1;
    size_t const room = sizeof address.sun_path - 1 - offset;
    fuzz::check(address.sun_family == AF_UNIX, "the family is set");
    fuzz::check(length == name.size() + 3, "the length is that of the whole name");
    fuzz::check(
        std::string(address.sun_path + offset) == name.substr(0, room), "the name is used as far as it fits");
    fuzz::check(address.sun_path[sizeof address.sun_path - 1] == '\0', "a path ends within the address");
    fuzz::check(is_path || address.sun_path[0] == '\0', "an abstract name begins with a null");
    socket.close(false);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size == 0 || data[0] == 1) {
        return 0;
    }
    std::string const input(reinterpret_cast<char const*>(data) + 1, size - 1);
    std::string const name = input.substr(0, input.find('\0'));
    checkIdentifier(name, data[0]);
    checkAddress(name, UnixSocketBase::ABSTRACT);
    checkAddress(name, UnixSocketBase::FILESYSTEM);
    return 0;
}
