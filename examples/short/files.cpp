#include <vesk/FileSys.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/StreamBinFileW.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorStorage.h>

#include <iostream>
#include <string>
#include <unistd.h>

namespace {

bool write(std::string const& path, std::string const& text) {
    vesk::StreamBinFileW file(4096);
    unsigned int written = 0;
    return file.open(path, file.WRITE | file.CREATE | file.EXCLUSIVE) ||
        file.write(text.data(), static_cast<unsigned int>(text.size()), written) != 1 || file.close();
}

bool read(std::string const& path, std::string& text) {
    vesk::StreamBinFileR file(4096);
    if (file.open(path, file.READ)) {
        return true;
    }
    char piece[256];
    unsigned int count = 0;
    int result = 0;
    while ((result = file.read(piece, sizeof piece, count)) == 1) {
        text.append(piece, count);
    }
    text.append(piece, count);
    std::ErrorStorage::ack(); // The end of the file is a report, too.
    return result == -1 || file.close();
}

} // namespace

int main() {
    vesk::Vesk const vesk(true, false);
    std::string const path = vesk::FileSys::getTempPath() + ("/short-" + std::to_string(getpid()));
    std::string text;
    if (write(path, "two lines\nin a file\n") || read(path, text)) {
        return 1;
    }
    std::cout << text;
    return vesk::FileSys::removeFile(path.c_str()) ? 1 : 0;
}
