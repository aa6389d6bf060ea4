#pragma once

namespace vesk {

/// Reserved for an engine of the library's own. This library has none.
class DnsSdImpl {
public:
    /// The body of the thread "vesk::DnsSd". It must return when that thread is joined. Without an engine of
    /// the library's own it returns immediately.
    /// @param argument  the `DnsSd::DnsSdThread`
    static void main(void* argument);
};

} // namespace vesk
