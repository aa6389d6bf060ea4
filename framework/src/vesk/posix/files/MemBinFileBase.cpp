#include <vesk/MemBinFileBase.h>

#include "vesk/posix/ipc/MappingMap.h"

#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/MemBinFileBase";

} // namespace

MemBinFileBase::~MemBinFileBase() {
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (MemBinFileBase::close()) {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~MemBinFileBase", "Error closing membinfile");
        std::ErrorStorage::ack();
    }
}

bool MemBinFileBase::close() {
    bool const unmapping_failed = destroyMappings(m_mappings);
    bool const closing_failed = BinFileBase::close();
    m_had_error = m_had_error || unmapping_failed;
    return unmapping_failed || closing_failed;
}

MemMapping MemBinFileBase::addMapping(
    MemMapping::MemAccessFlags const& flags, unsigned int length, unsigned int offset, void* address,
    bool ringbuffer) {
    MemMapping const mapping(m_fd, flags, length, offset, address, ringbuffer);
    if (mapping.isValid()) {
        enterMapping(m_mappings, mapping);
    }
    return mapping;
}

bool MemBinFileBase::removeMapping(MemMapping const& mapping) {
    return detail::removeMapping(SOURCE, m_mappings, mapping);
}

} // namespace vesk
