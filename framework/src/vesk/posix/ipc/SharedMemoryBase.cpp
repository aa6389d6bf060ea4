#include <vesk/SharedMemoryBase.h>

#include "MappingMap.h"
#include "vesk/posix/detail/CloseFd.h"
#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstdint>
#include <sys/stat.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SharedMemoryBase";

constexpr ErrnoRow CLOSE_ERRORS[] = {
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

/// The bits of the mode that must equal those of a regular file. Deliberately not all of `S_IFMT`: a symbolic
/// link passes too.
constexpr mode_t TYPE_MASK = 0xD000;
static_assert(S_IFREG == 0x8000);

} // namespace

SharedMemoryBase::~SharedMemoryBase() {
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (isValid() && SharedMemoryBase::close()) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "~SharedMemoryBase", "Error closing SharedMemory");
        std::ErrorStorage::ack();
    }
}

bool SharedMemoryBase::close() {
    if (!isValid()) {
        return false;
    }
    bool const unmapping_failed = destroyMappings(mappings);
    if (retryOnEintr([this] { return closeFd(descriptor); }) == 0) {
        descriptor = -1;
        return unmapping_failed;
    }
    if (errno == EBADF) {
        descriptor = -1;
    }
    classify(SOURCE, CLOSE_ERRORS, errno, nullptr, Chain::UNKNOWN);
    return true;
}

unsigned int SharedMemoryBase::getSize() const {
    if (!isValid()) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "size of invalid SHM object requested");
        return 0;
    }
    struct stat data;
    if (fstat(descriptor, &data) != 0 || (data.st_mode & TYPE_MASK) != S_IFREG) {
        return 0;
    }
    // The result is the same in every build: a size that a 32-bit `off_t` cannot hold fails here.
    return data.st_size <= INT32_MAX ? static_cast<unsigned int>(data.st_size) : 0;
}

MemMapping SharedMemoryBase::addMapping(
    MemMapping::MemAccessFlags const& flags, unsigned int length, unsigned int offset, void* address,
    bool ringbuffer) {
    MemMapping const mapping(descriptor, flags, length, offset, address, ringbuffer);
    if (mapping.isValid()) {
        enterMapping(mappings, mapping);
    }
    return mapping;
}

bool SharedMemoryBase::removeMapping(MemMapping const& mapping) {
    return detail::removeMapping(SOURCE, mappings, mapping);
}

} // namespace vesk
