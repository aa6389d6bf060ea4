#include <vesk/IPCIdentifier.h>

#include "vesk/common/Report.h"

#include <tarncommon/error/CommonError.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/IPCIdentifier";

} // namespace

bool transformToIPCIdentifier(char const* name, char* result, unsigned int size) {
    if (name == nullptr || result == nullptr || size == 0) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::INVALID_ARGUMENT, "null ptr. or zero size turned in");
        return true;
    }
    result[0] = '/';
    unsigned int length = 0;
    while (length != size - 2 && name[length] != '/' && name[length] != '\0') {
        result[length + 1] = name[length];
        ++length;
    }
    result[length + 1] = '\0';
    if (name[length] == '/') {
        report(SOURCE, Chain::NEW, std::CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name");
        return true;
    }
    if (name[length] != '\0') {
        report(SOURCE, Chain::NEW, std::CommonErrorId::UNSUPPORTED_VALUE, "given IPC name is too long");
        return true;
    }
    return false;
}

} // namespace vesk
