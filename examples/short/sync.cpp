#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/Thread.h>
#include <vesk/Vesk.h>

#include <iostream>

namespace {

vesk::Mutex mutex;
vesk::Condition condition;
bool ready = false;

void prepare(void* /*unused*/) {
    vesk::MutexLock const lock(mutex);
    ready = true;
    static_cast<void>(condition.signal());
}

} // namespace

int main() {
    vesk::Vesk const vesk(true, false);
    vesk::Thread thread(prepare, nullptr, "prepare");
    if (!thread.isValid() || thread.start()) {
        return 1;
    }
    {
        vesk::MutexLock const lock(mutex);
        while (!ready) {
            if (condition.wait(mutex)) {
                return 1;
            }
        }
    }
    std::cout << "ready\n";
    return thread.join() ? 1 : 0;
}
