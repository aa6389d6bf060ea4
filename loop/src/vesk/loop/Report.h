#pragma once

#include <vesk/loop/LoopError.h>
#include <vesk/loop/Result.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <new>
#include <utility>

namespace vesk::loop::detail {

/// Makes the report of a failed system call in the calling thread's store, with its number.
void reportErrno(char const* file, int line, int error) noexcept;

/// Where an error is made.
struct Here {
    Here(char const* source, int source_line = __builtin_LINE()) noexcept : file(source), line(source_line) {}
    char const* file;
    int line;
};

/// Returns an error of one report. The thread's own chain stays as it is.
template <typename Id, typename... Args, typename = decltype(familyOf(std::declval<Id>()))>
Error makeError(Here here, Id id, Args const&... args) {
    std::ErrorStorage const store(nullptr);
    std::ErrorOutput(here.file, here.line, true)(id, args...);
    return Error::take();
}

/// Returns an error caused by a system call that has failed with `error`.
template <typename Id, typename... Args, typename = decltype(familyOf(std::declval<Id>()))>
Error makeError(Here here, int error, Id id, Args const&... args) {
    std::ErrorStorage const store(nullptr);
    reportErrno(here.file, here.line, error);
    std::ErrorOutput(here.file, here.line, false)(id, args...);
    return Error::take(error);
}

/// Runs an operation that allocates. Converts the lack of memory to an error.
template <typename Operation>
auto withoutThrowing(char const* source, Operation operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (std::bad_alloc const&) {
        return makeError(source, std::CommonErrorId::OUT_OF_MEMORY);
    }
}

} // namespace vesk::loop::detail
