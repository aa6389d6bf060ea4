#include <vesk/NetDevice.h>
#include <vesk/Vesk.h>

#include <iostream>

int main() {
    vesk::Vesk const vesk(true, false);
    vesk::NetDevice devices(nullptr);
    vesk::NetDevice::InterfaceInfo info;
    int result = 0;
    while ((result = devices.getNextInfo(info)) == 0) {
        std::cout << info.name << ": " << (info.has_address ? info.address.host : "no address") << '\n';
    }
    return result == 1 ? 0 : 1;
}
