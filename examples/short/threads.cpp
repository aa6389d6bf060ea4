#include <vesk/Thread.h>
#include <vesk/Vesk.h>

#include <iostream>

namespace {

void add(void* sum) {
    for (int i = 1; i <= 100; ++i) {
        *static_cast<int*>(sum) += i;
    }
}

} // namespace

int main() {
    vesk::Vesk const vesk(true, false);
    int sum = 0;
    vesk::Thread thread(add, &sum, "adder");
    if (!thread.isValid() || thread.start() || thread.join()) {
        return 1;
    }
    std::cout << "the sum is " << sum << '\n';
}
