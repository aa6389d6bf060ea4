#pragma once

namespace vesk {

/// Where an engine for service discovery that belongs to the library would live.
class DnsSdImpl {
public:
    /// The body of the thread "vesk::DnsSd". It must return when that thread is to be joined; without an engine of the
    /// library's own it does so at once.
    /// @param argument  the `DnsSd::DnsSdThread`
    static void main(void* argument);
};

} // namespace vesk
