#include <vesk/FileSys.h>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t FILE_SIZE = 1 << 20;
constexpr unsigned int BUFFER_SIZE = 1 << 16;

/// A file and the path of its copy. Both are in memory: on a disk the time of `fsync` would dominate.
class Files {
public:
    Files() {
        std::vector<char> const content(FILE_SIZE, 'x');
        FILE* const file = fopen(source.c_str(), "wbe");
        if (file == nullptr || fwrite(content.data(), 1, FILE_SIZE, file) != FILE_SIZE || fclose(file) != 0) {
            abort();
        }
    }
    ~Files() {
        unlink(source.c_str());
        unlink(destination.c_str());
        rmdir(m_folder.c_str());
    }
    Files(Files const&) = delete;
    Files& operator=(Files const&) = delete;

private:
    static std::string makeFolder() {
        std::string path =
            std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/vesk-bench-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            abort();
        }
        return path;
    }

    std::string const m_folder = makeFolder();

public:
    std::string const source = m_folder + "/source";
    std::string const destination = m_folder + "/destination";
};

/// Returns true on failure.
bool copyBare(char const* source, char const* destination, void* buffer) {
    int const in = open(source, O_RDONLY | O_CLOEXEC);
    int const out = open(destination, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0660);
    if (in == -1 || out == -1) {
        return true;
    }
    ssize_t count = 0;
    while ((count = read(in, buffer, BUFFER_SIZE)) > 0) {
        if (write(out, buffer, static_cast<size_t>(count)) != count) {
            return true;
        }
    }
    return count != 0 || close(in) != 0 || fsync(out) != 0 || close(out) != 0;
}

template <typename Copy>
void measure(benchmark::State& state, Copy copy) {
    Files const files;
    std::vector<char> buffer(BUFFER_SIZE);
    for (auto _ : state) {
        if (copy(files, buffer.data()) || unlink(files.destination.c_str()) != 0) {
            state.SkipWithError("copy failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(FILE_SIZE));
}

void copyWithVesk(benchmark::State& state) {
    measure(state, [](Files const& files, void* buffer) {
        return vesk::FileSys::copy(files.source, files.destination, BUFFER_SIZE, buffer);
    });
}

void copyWithBareCalls(benchmark::State& state) {
    measure(state, [](Files const& files, void* buffer) {
        return copyBare(files.source.c_str(), files.destination.c_str(), buffer);
    });
}

BENCHMARK(copyWithVesk)->Name("Copy of a file of 1 MiB (at most 1.05)/vesk");
BENCHMARK(copyWithBareCalls)->Name("Copy of a file of 1 MiB (at most 1.05)/bare");

} // namespace
