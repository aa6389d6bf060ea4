#include "Tour.h"

#include <vesk/Directory.h>
#include <vesk/FileSys.h>
#include <vesk/FmtFileWrapper.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/SerialPort.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/StreamBinFileW.h>
#include <vesk/User.h>
#include <vesk/WidePath.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace tour {

namespace {

using vesk::FileSys;

constexpr int FOLDERS = 20;
constexpr int FILES = 20;             // Per folder.
constexpr size_t FILE_SIZE = 65536;   // Per file.
constexpr size_t BIG_SIZE = 64 << 20; // Of the copied file.
constexpr unsigned int BUFFER_SIZE = 1 << 18;

double milliseconds(vesk::RealtimeStopWatch const& watch) {
    return static_cast<double>(watch.getElapsedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS)) / 1000;
}

/// A temporary folder. The destructor removes it with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder() : m_path(std::string(FileSys::getTempPath()) + "/tour-XXXXXX") {
        failed(mkdtemp(m_path.data()) == nullptr, "making a temporary folder");
    }
    ~TemporaryFolder() { empty(m_path); }

    std::string get(std::string const& name) const { return m_path + "/" + name; }
    std::string const& get() const { return m_path; }

private:
    static void empty(std::string const& path) {
        for (vesk::Directory folder(path, true); folder.isValid() && !folder.atEnd();
             static_cast<void>(folder.next())) {
            std::string const name = folder.curName();
            if (name == "." || name == "..") {
                continue;
            }
            std::string const entry = path + "/" + name;
            if (folder.curInfo(false).isDirectory()) {
                empty(entry);
            } else {
                failed(FileSys::removeFile(entry.c_str()), "removing a file");
            }
        }
        failed(FileSys::removeDir(path.c_str()), "removing a folder");
    }

    std::string m_path;
};

bool writeFile(std::string const& path, size_t size) {
    static std::vector<char> const text(FILE_SIZE, 'x');
    vesk::StreamBinFileW file;
    if (file.open(path, vesk::BinFileBase::WRITE | vesk::BinFileBase::CREATE)) {
        return true;
    }
    for (size_t left = size; left != 0;) {
        unsigned int written = 0;
        if (file.write(text.data(), static_cast<unsigned int>(std::min(left, text.size())), written) != 1) {
            return true;
        }
        left -= written;
    }
    return false;
}

struct Counts {
    long long folders = 0;
    long long files = 0;
    long long links = 0;
    long long bytes = 0;
};

void walk(vesk::Directory folder, Counts& counts) {
    for (; folder.isValid() && !folder.atEnd(); static_cast<void>(folder.next())) {
        if (strcmp(folder.curName(), ".") == 0 || strcmp(folder.curName(), "..") == 0) {
            continue;
        }
        vesk::FileInfo const info = folder.curInfo(false);
        if (info.isDirectory()) {
            ++counts.folders;
            walk(folder.curDir(false, false), counts);
        } else if (info.isSymbolicLink()) {
            ++counts.links;
        } else {
            ++counts.files;
            counts.bytes += info.getSize();
        }
    }
}

void handleTree() {
    section("Files: a tree created, walked, copied, linked, moved and removed");
    TemporaryFolder const folder;
    vesk::RealtimeStopWatch const making(true);
    for (int i = 0; i < FOLDERS; ++i) {
        std::string const inner = folder.get("folder-" + std::to_string(i));
        failed(FileSys::createDir(inner.c_str()), "making a folder");
        for (int j = 0; j < FILES; ++j) {
            failed(writeFile(inner + "/file-" + std::to_string(j), FILE_SIZE), "writing a file");
        }
        failed(FileSys::createLink("file-0", (inner + "/link").c_str()), "making a link");
    }
    tell(
        "%d files of %zu KiB in %d folders created in %.0f ms, each one synchronized to the medium",
        FOLDERS * FILES, FILE_SIZE >> 10, FOLDERS, milliseconds(making));

    Counts counts;
    vesk::RealtimeStopWatch const walking(true);
    walk(vesk::Directory(folder.get(), true), counts);
    double const walk_ms = milliseconds(walking);
    failed(
        counts.folders != FOLDERS || counts.files != FOLDERS * FILES || counts.links != FOLDERS ||
            counts.bytes != static_cast<long long>(FILE_SIZE) * FOLDERS * FILES,
        "the walk finds everything that was created");
    tell(
        "a walk found %lld folders, %lld files, %lld links and %lld MiB in %.1f ms", counts.folders,
        counts.files, counts.links, counts.bytes >> 20, walk_ms);

    std::string const big = folder.get("big");
    std::string const copied = folder.get("copied");
    std::vector<char> buffer(BUFFER_SIZE);
    failed(writeFile(big, BIG_SIZE), "writing the big file");
    vesk::RealtimeStopWatch const copying(true);
    if (!failed(FileSys::copy(big, copied, BUFFER_SIZE, buffer.data()), "copying")) {
        tell(
            "%zu MiB copied through a buffer of %u KiB at %.0f MiB/s", BIG_SIZE >> 20, BUFFER_SIZE >> 10,
            static_cast<double>(BIG_SIZE >> 20) * 1000 / milliseconds(copying));
    }

    std::string const moved = folder.get("moved");
    std::string const link = folder.get("link");
    std::array<char, 256> target{};
    auto size = static_cast<unsigned int>(target.size());
    failed(FileSys::move(copied.c_str(), moved.c_str()), "moving");
    failed(FileSys::createLink(moved.c_str(), link.c_str()), "linking");
    failed(FileSys::readLink(link.c_str(), target.data(), size), "reading the link");
    failed(FileSys::removeFile(moved.c_str()), "removing");
    failed(moved != target.data(), "the target of the link is the moved file");
    tell(
        "moved, linked and removed: the link is %s, its target is %s",
        FileSys::exists(link.c_str(), false) == 0 ? "there" : "gone",
        FileSys::exists(link.c_str(), true) == 0 ? "there" : "gone");
    failed(
        FileSys::exists(link.c_str(), false) != 0 || FileSys::exists(link.c_str(), true) != 1,
        "only the link is left");
}

void readNumbers() {
    section("Files: formatted reading, paths, mount points, users");
    using Reader = vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, vesk::BinFileBase::ReadFlags>;
    double load = -1;
    Reader reader("/proc/loadavg", vesk::BinFileBase::READ);
    reader >> load;
    if (!failed(!reader.isValid() || load < 0, "reading /proc/loadavg")) {
        tell("/proc/loadavg says %.2f", load);
    }
    vesk::WidePath const wide("/etc/../etc/passwd");
    tell(
        "\"%s\" is canonically \"%s\", %s as wide text", std::string(wide).c_str(),
        std::string(wide.getCanonicalized()).c_str(), wide.isValid() ? "valid" : "invalid");
    std::list<std::string> const mount_points = FileSys::getMountPoints();
    tell(
        "%zu file systems are mounted, the first one on \"%s\"", mount_points.size(),
        mount_points.empty() ? "" : mount_points.front().c_str());
    vesk::User const owner = vesk::FileInfo("/etc/passwd", true).getOwner();
    tell(
        "/etc/passwd belongs to user %lld, \"%s\"; \"nobody\" is user %lld", owner.getId(),
        owner.getName().c_str(), vesk::User("nobody").getId());
    failed(mount_points.empty() || owner.getName().empty(), "mount points and users");
}

void useSerialLine() {
    section("Files: a serial line at 115200 8E1, on a pseudo-terminal");
    int const master = posix_openpt(O_RDWR | O_NOCTTY);
    if (failed(master == -1 || grantpt(master) != 0 || unlockpt(master) != 0, "a pseudo-terminal")) {
        return;
    }
    vesk::SerialPort port(ptsname(master), 115200, vesk::SerialPort::Parity::EVEN);
    if (!failed(port.open(), "opening the port")) {
        std::array<char, 256> sent{};
        for (size_t i = 0; i < sent.size(); ++i) {
            sent[i] = static_cast<char>(i); // Every byte value: the line must not translate any.
        }
        std::array<char, 256> received{};
        unsigned int count = 0;
        failed(
            port.write(sent.data(), sent.size(), count) != 1 || count != sent.size(), "writing to the line");
        failed(port.flush(false), "flushing the line");
        size_t there = 0;
        while (there < received.size()) {
            ssize_t const piece = read(master, received.data() + there, received.size() - there);
            if (failed(piece <= 0, "reading at the other end")) {
                break;
            }
            there += static_cast<size_t>(piece);
        }
        failed(sent != received, "the received bytes are the sent ones");
        tell("%zu bytes through \"%s\", none changed", there, port.getDevice().c_str());
        failed(port.close(), "closing the port");
    }
    close(master);
}

} // namespace

void files() {
    handleTree();
    readNumbers();
    useSerialLine();
}

} // namespace tour
