#include <vesk/Vesk.h>

#include <common/Shared.h>

#include <iostream>

namespace {

struct Cache {
    Cache() { std::cout << "built\n"; }
    ~Cache() { std::cout << "destroyed\n"; }
};

std::Shared<Cache> cache;

} // namespace

int main() {
    vesk::Vesk const vesk(true, false);
    std::SharedBase::Ptr<Cache> first(cache); // Builds the object.
    std::SharedBase::Ptr<Cache> const second(first);
    first = std::SharedBase::Ptr<Cache>();
    std::cout << (second ? "in use\n" : "unused\n");
}
