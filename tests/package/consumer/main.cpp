// A user's program: locks a mutex twice and prints the error chain of the failure.
#include <vesk/Mutex.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>

int main() {
    vesk::Mutex const mutex;
    vesk::MutexLock const lock(mutex);
    if (!mutex.lock()) {
        std::cout << "the second lock did not fail\n";
        return 1;
    }
    std::cout << tarn_error.getReasonList() << '\n';
    bool const right_family = std::ErrorStorage::isA(vesk::Mutex::Error) && std::ErrorStorage::id() == 3;
    std::ErrorStorage::ack();
    return right_family ? 0 : 1;
}
