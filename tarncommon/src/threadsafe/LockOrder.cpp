#include <tarncommon/threadsafe/LockOrder.h>

#if defined(TARN_CHECKS_LOCK_ORDER)

#include <tarncommon/error/GlobalErrorHandler.h>

namespace threadsafe {

namespace {

constexpr char const* SOURCE = "tarncommon/src/threadsafe/LockOrder";

enum Nesting : bool { ONCE, NESTED };

struct Row {
    char const* name;
    Nesting nesting;
};

constexpr Row ROWS[] = {
    {"UNNAMED", NESTED},
#define TARN_LOCK_ROW(name, nesting) {#name, nesting},
    TARN_LOCKS(TARN_LOCK_ROW)
#undef TARN_LOCK_ROW
};

Row const& rowOf(LockName name) noexcept {
    return ROWS[static_cast<unsigned char>(name)];
}

struct Held {
    void const* lock;
    LockName name;
};

/// More than a thread can hold: all names, and some levels of the one that nests.
constexpr unsigned int CAPACITY = 32;

TARN_CONSTANT_INIT thread_local Held t_held[CAPACITY] = {};
TARN_CONSTANT_INIT thread_local unsigned int t_count = 0;

bool forbids(Held const& held, LockName name) noexcept {
    return held.name == name ? rowOf(name).nesting == ONCE : held.name > name;
}

} // namespace

void LockOrder::check(void const* lock, LockName name) noexcept {
    if (name == LockName::UNNAMED) {
        return;
    }
    Held const* wrong = nullptr;
    for (unsigned int i = 0; i < t_count; ++i) {
        if (t_held[i].lock == lock) {
            return;
        }
        if (forbids(t_held[i], name)) {
            wrong = &t_held[i];
        }
    }
    if (wrong != nullptr) {
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "check",
            "wrong lock order: %s is acquired after %s, but must be acquired before it", rowOf(name).name,
            rowOf(wrong->name).name);
    }
}

void LockOrder::enter(void const* lock, LockName name) noexcept {
    if (name != LockName::UNNAMED && t_count < CAPACITY) {
        t_held[t_count++] = {lock, name};
    }
}

void LockOrder::leave(void const* lock, LockName name) noexcept {
    if (name == LockName::UNNAMED) {
        return;
    }
    for (unsigned int i = t_count; i-- > 0;) {
        if (t_held[i].lock == lock) {
            for (--t_count; i < t_count; ++i) {
                t_held[i] = t_held[i + 1];
            }
            return;
        }
    }
}

} // namespace threadsafe

#endif
