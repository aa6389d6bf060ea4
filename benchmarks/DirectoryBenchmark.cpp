#include <vesk/Directory.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int ENTRIES = 10000;

/// A temporary folder with the given number of files, in memory if the system has a file system there.
class Folder {
public:
    Folder() {
        std::string const parent = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
        m_path = parent + "/vesk-bench-XXXXXX";
        if (mkdtemp(m_path.data()) == nullptr) {
            perror(m_path.c_str());
            exit(1);
        }
        for (int i = 0; i < ENTRIES; ++i) {
            int const fd = open((m_path + "/file" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY, 0600);
            if (fd < 0) {
                perror(m_path.c_str());
                exit(1);
            }
            close(fd);
        }
    }
    ~Folder() {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
    }

    std::string const& getPath() const { return m_path; }

private:
    std::string m_path;
};

Folder const& getFolder() {
    static Folder const folder;
    return folder;
}

void walk(benchmark::State& state) {
    std::string const& path = getFolder().getPath();
    for (auto _ : state) {
        long long size = 0;
        int count = 0;
        vesk::Directory directory(path, false);
        for (; directory.isValid() && !directory.atEnd(); directory.next()) {
            size += directory.curInfo(false).getSize();
            ++count;
        }
        benchmark::DoNotOptimize(size);
        if (count != ENTRIES + 2) {
            state.SkipWithError("entries are missing");
        }
    }
}

void bareWalk(benchmark::State& state) {
    std::string const& path = getFolder().getPath();
    for (auto _ : state) {
        long long size = 0;
        int count = 0;
        int const fd = open(path.c_str(), O_RDONLY);
        DIR* const dir = fdopendir(fd);
        while (dirent const* const entry = readdir(dir)) {
            struct stat data;
            if (fstatat(fd, entry->d_name, &data, AT_SYMLINK_NOFOLLOW) == 0) {
                size += data.st_size;
            }
            ++count;
        }
        closedir(dir);
        benchmark::DoNotOptimize(size);
        if (count != ENTRIES + 2) {
            state.SkipWithError("entries are missing");
        }
    }
}

BENCHMARK(walk)->Name("Directory walk of 10000 entries with curInfo (at most 1.10)/vesk");
BENCHMARK(bareWalk)->Name("Directory walk of 10000 entries with curInfo (at most 1.10)/bare");

} // namespace
