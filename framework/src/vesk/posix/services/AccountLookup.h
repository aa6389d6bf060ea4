#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace vesk::detail {

/// Looks up an entry of the user or group database and extracts an answer from it.
/// @tparam Entry   `passwd` or `group`
/// @param advice   the `sysconf` name of the suggested buffer size
/// @param nothing  the answer if there is no entry, or no memory for it
/// @param call     makes the reentrant lookup with an entry, a buffer, its size, and a pointer that receives
///                 the entry found
/// @param take     copies the answer out of the entry; the texts of the entry are in the buffer
template <typename Entry, typename Answer, typename Call, typename Take>
Answer lookUpAccount(int advice, Answer nothing, Call call, Take take) {
    struct Freer {
        void operator()(char* memory) const noexcept { free(memory); }
    };
    long const advised = sysconf(advice);
    // The suggested size is not a limit: an entry may be larger.
    for (size_t size = advised == -1 ? 256 : static_cast<size_t>(advised);; size *= 2) {
        std::unique_ptr<char, Freer> const buffer(static_cast<char*>(malloc(size)));
        if (buffer == nullptr) {
            return nothing;
        }
        Entry entry;
        Entry* found = nullptr;
        int const error = call(&entry, buffer.get(), size, &found);
        if (error == ERANGE) {
            continue;
        }
        return found != nullptr ? take(*found) : nothing;
    }
}

} // namespace vesk::detail
