// Compiled with -fno-delete-null-pointer-checks: a null `this` is defined for dismiss.
#include <vesk/Message.h>

namespace vesk {

Message::~Message() = default;

void Message::get_handled_by(Handler*) {}

void Message::invoke() {}

// Callers with a pointer that may be null use the qualified call, as free() accepts null.
__attribute__((no_sanitize("null"))) void Message::dismiss() {
    if (this == nullptr) {
        return;
    }
    delete this;
}

int Message::abort() {
    return 0;
}

void Message::Callback::invoke() {
    callback(data);
}

} // namespace vesk
