#include <vesk/SecureRandom.h>

namespace vesk {

static_assert(sizeof(unsigned int) == 4 && sizeof(unsigned long long) == 8);

SecureRandom::SecureRandom(bool strong) {
    static_cast<void>(open(strong ? "/dev/random" : "/dev/urandom", READ));
}

SecureRandom::~SecureRandom() = default;

bool SecureRandom::isValid() const {
    return m_fd != -1 && StreamBinFileR::isValid();
}

bool SecureRandom::getRandData(unsigned char* buffer, unsigned int size) {
    while (size != 0) {
        unsigned int count = 0;
        // The end of the file is a failure: repeating the read would never end.
        if (read(buffer, size, count) <= 0) {
            return true;
        }
        buffer += count;
        size -= count;
    }
    return false;
}

bool SecureRandom::getRandUInt32(unsigned int& value) {
    return getRandData(reinterpret_cast<unsigned char*>(&value), sizeof value);
}

bool SecureRandom::getRandUInt64(unsigned long long& value) {
    return getRandData(reinterpret_cast<unsigned char*>(&value), sizeof value);
}

} // namespace vesk
