#include <vesk/Mutex.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>

int main() {
    vesk::Vesk const vesk(true, false); // Once in a process, before anything else.
    vesk::Mutex mutex;
    if (mutex.unlock()) { // True is failure.
        std::cout << tarn_error.getReasonList() << '\n';
        std::ErrorStorage::ack();
    }
}
