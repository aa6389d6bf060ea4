#pragma once

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/stream/IBinStreamBase.h>

#include <new>

namespace std::stream_detail {

/// Allocates the buffer of one direction. Returns null for a size of 0, and after a report if the allocation
/// fails.
inline unsigned char*
makeBuffer(char const* source, unsigned int size, int line = __builtin_LINE()) noexcept {
    if (size == 0) {
        return nullptr;
    }
    unsigned char* const buffer = new (nothrow) unsigned char[size];
    if (buffer == nullptr) {
        ErrorOutput(source, line, true)(CommonErrorId::OUT_OF_MEMORY);
    }
    return buffer;
}

/// Reports that an operation lacks its buffer, beginning with the cause.
inline void reportNoBuffer(char const* source, int line = __builtin_LINE()) noexcept {
    ErrorOutput(source, line, true)(CommonErrorId::OUT_OF_MEMORY);
    ErrorOutput(source, line, false)(IBinStreamBase::StreamErrorId::UNUSABLE);
}

} // namespace std::stream_detail
