#pragma once

#include <vesk/UnicodeString.h>

namespace vesk::detail {

/// Copies a file to a new one in pieces of at most `buffer_size` bytes; see `FileSys::copy`. Returns true on
/// failure, after a report.
/// @param buffer  null: takes a buffer from the heap
bool copyFile(
    UnicodeString const& source, UnicodeString const& destination, unsigned int buffer_size, void* buffer);

} // namespace vesk::detail
