#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

namespace vesk {

/// Child processes, and what there is to know about processes in general.
///
///     std::string const program = std::string("converter") + vesk::ProcessTNG::ExecutableSuffix;
class VESK_API ProcessTNG : private tarnbase::NonCopyable {
public:
    /// What the file name of an executable ends in: the empty text on this system. There before any initialiser runs.
    static char const* const ExecutableSuffix;
};

} // namespace vesk
