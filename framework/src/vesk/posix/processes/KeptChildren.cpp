#include <vesk/KeptChildren.h>

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <vector>

namespace vesk {

namespace {

/// All kept children. Never destroyed: threads wait for children while the process ends.
struct Kept {
    static Kept& get() {
        static Kept& s_kept = *new Kept;
        return s_kept;
    }
    std::mutex mutex;
    std::vector<int> children; ///< Has room for one child of each start.
    std::size_t starts = 0;
};

} // namespace

KeptChildren::Start::Start() {
    Kept& kept = Kept::get();
    std::lock_guard<std::mutex> const held(kept.mutex);
    std::size_t const needed = kept.children.size() + kept.starts + 1;
    if (needed > kept.children.capacity()) {
        kept.children.reserve(2 * needed);
    }
    ++kept.starts;
}

KeptChildren::Start::~Start() {
    Kept& kept = Kept::get();
    std::lock_guard<std::mutex> const held(kept.mutex);
    --kept.starts;
}

void KeptChildren::Start::keep(int child) noexcept {
    if (child > 0 && !m_has_kept) {
        m_has_kept = true;
        Kept& kept = Kept::get();
        std::lock_guard<std::mutex> const held(kept.mutex);
        kept.children.push_back(child);
        // This start needs its room no more, but counts until its end.
    }
}

void KeptChildren::release(int child) noexcept {
    Kept& kept = Kept::get();
    std::lock_guard<std::mutex> const held(kept.mutex);
    auto const found = std::find(kept.children.begin(), kept.children.end(), child);
    if (found != kept.children.end()) {
        *found = kept.children.back();
        kept.children.pop_back();
    }
}

bool KeptChildren::isKept(int child) noexcept {
    Kept& kept = Kept::get();
    std::lock_guard<std::mutex> const held(kept.mutex);
    return kept.starts > 0 ||
        std::find(kept.children.begin(), kept.children.end(), child) != kept.children.end();
}

} // namespace vesk
