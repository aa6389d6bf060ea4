// A program that uses only the base library.
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <iostream>

int main() {
    threadsafe::MutexImpl mutex(false);
    if (mutex.lock() != 0 || mutex.unlock() != 0 || std::ErrorStorage::isError(true)) {
        return 1;
    }
    std::cout << "the base library works\n";
    return 0;
}
