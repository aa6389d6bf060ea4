#include <vesk/MemMapping.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/SysError.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>

#include <cstddef>
#include <sys/mman.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/MemMapping";

constexpr ErrnoRow MAP_ERRORS[] = {
    {{ENXIO, EBADF, ENOTSUP}, SysErrorId::SPOILED_INTEGRITY},
    {{EAGAIN, ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {{EACCES}, SysErrorId::PERMISSION_DENIED},
    {{ENODEV}, SysErrorId::NOT_IMPLEMENTED},
    {{EINVAL, EOVERFLOW}, SysErrorId::INVALID_PARAMETER},
    {{EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow RESERVE_ERRORS[] = {
    {OTHERS, SysErrorId::NOT_IMPLEMENTED},
};

constexpr ErrnoRow UNMAP_ERRORS[] = {
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

constexpr ErrnoRow SYNC_ERRORS[] = {
    {{EBUSY}, SysErrorId::SPOILED_INTEGRITY},
    {{EINVAL, ENOMEM}, SysErrorId::INVALID_PARAMETER},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

static_assert(MemMapping::READ == PROT_READ && MemMapping::WRITE == PROT_WRITE);
static_assert(MemMapping::EXECUTE == PROT_EXEC && PROT_NONE == 0);

int translate(MemMapping::MemAccessFlags flags) noexcept {
    int result = PROT_NONE;
    for (auto const flag : {MemMapping::READ, MemMapping::WRITE, MemMapping::EXECUTE}) {
        if (flags.has(flag)) {
            result |= static_cast<int>(flag);
        }
    }
    return result;
}

/// Maps a part of the object. Returns `MAP_FAILED` after reporting a failure.
void* mapObject(void* address, uint32_t length, int protection, int flags, int fd, uint32_t offset) {
    void* const result =
        mmap(address, length, protection, MAP_SHARED | flags, fd, static_cast<off_t>(offset));
    if (result == MAP_FAILED) {
        classify(SOURCE, MAP_ERRORS, errno);
    }
    return result;
}

/// Reserves an address range for both halves of a ring buffer. Returns `MAP_FAILED` after reporting a
/// failure.
void* reserve(void* hint, uint32_t length) {
    // A size has 32 bits in every build. If the doubled size wrapped, the second half would lie outside the
    // range.
    bool const fits = length <= UINT32_MAX / 2;
    if (!fits) {
        errno = ENOMEM;
    }
    void* const result = fits
        ? mmap(hint, size_t{2} * length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)
        : MAP_FAILED;
    if (result == MAP_FAILED) {
        classify(SOURCE, RESERVE_ERRORS, errno);
    }
    return result;
}

bool isWholePages(uint32_t length) noexcept {
    uint32_t const page_size = Vesk::s_sys_info.page_size;
    return page_size != 0 && length % page_size == 0;
}

} // namespace

MemMapping::MemMapping(
    int const& fd, MemAccessFlags const& access, unsigned int length, unsigned int from, void* hint,
    bool ringbuffer)
    : address(MAP_FAILED), offset(from), size(length), flags(access) {
    if (ringbuffer) {
        mapRing(fd, hint, length);
    } else {
        mapPlain(fd, hint);
    }
}

void MemMapping::mapPlain(int fd, void* hint) {
    address = mapObject(hint, size, translate(flags), 0, fd, offset);
}

void MemMapping::mapRing(int fd, void* hint, uint32_t length) {
    if (!isWholePages(length)) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "requested ringbuffer but size is not a multiple of system page size");
        return;
    }
    size = 2 * length;
    void* const base = reserve(hint, length);
    if (base == MAP_FAILED) {
        return;
    }
    // If one half fails, the range stays reserved on purpose, so that no other mapping is placed at these
    // addresses.
    int const protection = translate(flags);
    if (mapObject(static_cast<char*>(base) + length, length, protection, MAP_FIXED, fd, offset) !=
        MAP_FAILED) {
        address = mapObject(base, length, protection, MAP_FIXED, fd, offset);
    }
}

bool MemMapping::destroy() {
    if (address == MAP_FAILED) {
        return false;
    }
    if (munmap(address, size) != 0) {
        classify(SOURCE, UNMAP_ERRORS, errno);
        return true;
    }
    address = nullptr;
    size = 0;
    return false;
}

bool MemMapping::sync(unsigned int length, unsigned int from) {
    // Integer arithmetic: without a mapping the pointer is not valid, and pointer arithmetic on it would be
    // undefined.
    auto const begin = reinterpret_cast<uintptr_t>(address) + from;
    auto* const pointer = reinterpret_cast<void*>(begin); // NOLINT(performance-no-int-to-ptr)
    if (msync(pointer, length, MS_SYNC) != 0) {
        classify(SOURCE, SYNC_ERRORS, errno);
        return true;
    }
    return false;
}

bool MemMapping::isValid() const noexcept {
    return address != MAP_FAILED && address != nullptr;
}

} // namespace vesk
