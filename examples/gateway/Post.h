#pragma once

#include <functional>

namespace gateway {

/// Lets the thread of the gateway call a function soon. May be called by any thread.
using Post = std::function<void(std::function<void()>)>;

} // namespace gateway
