// A program that passes file offsets and times through the library. The values agree with those of the system
// only if the program and the library have the same widths.
#include <vesk/FileInfo.h>
#include <vesk/StopWatchBase.h>
#include <vesk/Vesk.h>

#include <tarncommon/tarnbase/TimePoint.h>

#include <fstream>
#include <iostream>

int main(int, char** argv) {
    vesk::Vesk const vesk(true, false);
    std::ifstream file(argv[0], std::ios::ate | std::ios::binary);
    vesk::FileInfo const info(argv[0], true);
    if (!info.isRegularFile() || info.getSize() != static_cast<long long>(file.tellg())) {
        std::cout << "the file has " << file.tellg() << " bytes, not " << info.getSize() << '\n';
        return 1;
    }
    timespec const time = tarnbase::TimePoint(1500).toTimespec();
    if (time.tv_sec != 1 || time.tv_nsec != 500000000) {
        std::cout << "1500 ms are not " << time.tv_sec << " s and " << time.tv_nsec << " ns\n";
        return 1;
    }
    std::cout << "offsets of " << 8 * sizeof(off_t) << " bits, times of " << 8 * sizeof(time_t) << " bits\n";
    return 0;
}
