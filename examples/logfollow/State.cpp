#include "State.h"

#include "ReadAll.h"

#include <vesk/BinTempFileRW.h>
#include <vesk/FileSys.h>
#include <vesk/StreamBinFileRW.h>
#include <vesk/WidePath.h>

#include <sstream>

namespace logfollow {

namespace {

/// Writes a text to a new file beside `path`. Returns true on failure.
bool writeBeside(std::string const& path, std::string const& text, std::string& beside) {
    // In the same folder: only within a file system is a rename possible.
    vesk::BinTempFileRW temporary(vesk::WidePath((path + ".").c_str()));
    vesk::StreamBinFileRW file;
    unsigned int written = 0;
    if (!temporary.isValid() || file.open(temporary, true)) {
        return true; // The temporary file removes itself.
    }
    beside = file.getTempPath(); // From here on this function has to remove it.
    // Closing waits until the data is on the medium. A rename that gets there first would leave an empty file after
    // a power failure.
    return file.write(text.data(), static_cast<unsigned int>(text.size()), written) != 1 ||
        file.flush(false) || file.close();
}

} // namespace

bool readState(std::string const& path, State& state, std::string& problem) {
    if (vesk::FileSys::exists(path.c_str(), true) == 1) {
        return false;
    }
    std::string text;
    if (examples::readAll(path, text, problem)) {
        return true;
    }
    std::istringstream lines(text);
    Record record;
    while (lines >> record.id.device >> record.id.inode >> record.position && lines.get() == ' ' &&
           std::getline(lines, record.path)) {
        state.push_back(record);
    }
    return false;
}

bool writeState(std::string const& path, State const& state, std::string& problem) {
    std::ostringstream text;
    for (Record const& record : state) {
        text << record.id.device << ' ' << record.id.inode << ' ' << record.position << ' ' << record.path
             << '\n';
    }
    std::string beside;
    bool const failed =
        writeBeside(path, text.str(), beside) || vesk::FileSys::move(beside.c_str(), path.c_str());
    if (failed) {
        problem = tarn_error.getReasonList();
        static_cast<void>(!beside.empty() && vesk::FileSys::removeFile(beside.c_str()));
        std::ErrorStorage::ack();
    }
    return failed;
}

} // namespace logfollow
