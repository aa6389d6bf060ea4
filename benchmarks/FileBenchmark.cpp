#include "Often.h"

#include <tarncommon/error/ErrorStorage.h>
#include <vesk/FileInfo.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/StreamBinFileW.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned int PIECE_SIZE = 65536;
constexpr unsigned int FILE_SIZE = 64 * PIECE_SIZE;
constexpr unsigned int BUFFER_SIZE = 4096;
constexpr unsigned int BLOCK_SIZE = 16;
constexpr char const* MISSING = "/tmp/there/is/no/such/file";

/// A temporary file, in memory if the system allows that. The destructor removes it.
class TempFile {
public:
    TempFile() {
        for (char const* const pattern : {"/dev/shm/vesk-bench-XXXXXX", "/tmp/vesk-bench-XXXXXX"}) {
            m_path = pattern;
            int const fd = mkstemp(&m_path[0]);
            if (fd != -1) {
                std::string const content(FILE_SIZE, 'x');
                bool const failed = write(fd, content.data(), FILE_SIZE) != static_cast<ssize_t>(FILE_SIZE);
                close(fd);
                if (!failed) {
                    return;
                }
                unlink(m_path.c_str());
            }
        }
        abort();
    }
    ~TempFile() { unlink(m_path.c_str()); }
    TempFile(TempFile const&) = delete;
    TempFile& operator=(TempFile const&) = delete;

    char const* getPath() const { return m_path.c_str(); }

private:
    std::string m_path;
};

char s_piece[PIECE_SIZE];

void readPiecesVesk(benchmark::State& state) {
    TempFile const temp;
    vesk::StreamBinFileR file;
    file.open(temp.getPath(), file.READ);
    unsigned int position = 0;
    unsigned int count = 0;
    for (auto _ : state) {
        file.seek(0, file.Begin, position);
        for (unsigned int at = 0; at < FILE_SIZE; at += PIECE_SIZE) {
            if (file.read(s_piece, PIECE_SIZE, count) != 1 || count != PIECE_SIZE) {
                state.SkipWithError("read failed");
                return;
            }
        }
    }
}

void readPiecesBare(benchmark::State& state) {
    TempFile const temp;
    int const fd = open(temp.getPath(), O_RDONLY | O_CLOEXEC);
    for (auto _ : state) {
        lseek(fd, 0, SEEK_SET);
        for (unsigned int at = 0; at < FILE_SIZE; at += PIECE_SIZE) {
            if (read(fd, s_piece, PIECE_SIZE) != static_cast<ssize_t>(PIECE_SIZE)) {
                state.SkipWithError("read failed");
                return;
            }
        }
    }
    close(fd);
}

void writePiecesVesk(benchmark::State& state) {
    TempFile const temp;
    vesk::StreamBinFileW file;
    file.open(temp.getPath(), file.WRITE);
    unsigned int position = 0;
    unsigned int count = 0;
    for (auto _ : state) {
        file.seek(0, file.Begin, position);
        for (unsigned int at = 0; at < FILE_SIZE; at += PIECE_SIZE) {
            if (file.write(s_piece, PIECE_SIZE, count) != 1 || count != PIECE_SIZE) {
                state.SkipWithError("write failed");
                return;
            }
        }
    }
}

void writePiecesBare(benchmark::State& state) {
    TempFile const temp;
    int const fd = open(temp.getPath(), O_WRONLY | O_CLOEXEC);
    for (auto _ : state) {
        lseek(fd, 0, SEEK_SET);
        for (unsigned int at = 0; at < FILE_SIZE; at += PIECE_SIZE) {
            if (write(fd, s_piece, PIECE_SIZE) != static_cast<ssize_t>(PIECE_SIZE)) {
                state.SkipWithError("write failed");
                return;
            }
        }
    }
    close(fd);
}

/// A standard C stream with the same buffer size.
class StandardFile {
public:
    StandardFile(char const* path, char const* mode) : m_file(fopen(path, mode)) {
        if (m_file == nullptr || setvbuf(m_file, m_buffer, _IOFBF, sizeof m_buffer) != 0) {
            abort();
        }
    }
    ~StandardFile() { fclose(m_file); }
    StandardFile(StandardFile const&) = delete;
    StandardFile& operator=(StandardFile const&) = delete;

    FILE* get() const { return m_file; }

private:
    FILE* m_file;
    char m_buffer[BUFFER_SIZE];
};

void readBlocksVesk(benchmark::State& state) {
    vesk::StreamBinFileR file(BUFFER_SIZE);
    file.open("/dev/zero", file.READ);
    char block[BLOCK_SIZE];
    unsigned int count = 0;
    for (auto _ : state) {
        if (file.read(block, sizeof block, count) != 1 || count != sizeof block) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(block);
    }
}

void readBlocksBare(benchmark::State& state) {
    StandardFile const file("/dev/zero", "rb");
    char block[BLOCK_SIZE];
    for (auto _ : state) {
        if (fread_unlocked(block, 1, sizeof block, file.get()) != sizeof block) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(block);
    }
}

void writeBlocksVesk(benchmark::State& state) {
    vesk::StreamBinFileW file(BUFFER_SIZE);
    file.open("/dev/null", file.WRITE);
    char block[BLOCK_SIZE] = {};
    unsigned int written = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        if (file.write(block, sizeof block, written) != 1 || written != sizeof block) {
            state.SkipWithError("write failed");
            break;
        }
    }
}

void writeBlocksBare(benchmark::State& state) {
    StandardFile const file("/dev/null", "wb");
    char block[BLOCK_SIZE] = {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        if (fwrite_unlocked(block, 1, sizeof block, file.get()) != sizeof block) {
            state.SkipWithError("write failed");
            break;
        }
    }
}

void failedOpenVesk(benchmark::State& state) {
    vesk::StreamBinFileR file;
    for (auto _ : state) {
        if (!file.open(MISSING, file.READ)) {
            state.SkipWithError("open succeeded");
            break;
        }
        std::ErrorStorage::ack();
    }
}

void failedOpenBare(benchmark::State& state) {
    char text[256];
    for (auto _ : state) {
        if (open(MISSING, O_RDONLY | O_CLOEXEC) != -1) {
            state.SkipWithError("open succeeded");
            break;
        }
        benchmark::DoNotOptimize(strerror_r(errno, text, sizeof text));
    }
}

void failedStatVesk(benchmark::State& state) {
    for (auto _ : state) {
        vesk::FileInfo const info(MISSING, true);
        if (info.isValid()) {
            state.SkipWithError("stat succeeded");
            break;
        }
        benchmark::DoNotOptimize(std::ErrorStorage::get()->getText());
        std::ErrorStorage::ack();
    }
}

void failedStatBare(benchmark::State& state) {
    char text[256];
    struct stat info {};
    for (auto _ : state) {
        if (stat(MISSING, &info) == 0) {
            state.SkipWithError("stat succeeded");
            break;
        }
        benchmark::DoNotOptimize(strerror_r(errno, text, sizeof text));
    }
}

void openAndCloseVesk(benchmark::State& state) {
    vesk::StreamBinFileR file;
    for (auto _ : state) {
        if (file.open("/dev/null", file.READ) || file.close()) {
            state.SkipWithError("open failed");
            break;
        }
    }
}

void openAndCloseBare(benchmark::State& state) {
    for (auto _ : state) {
        int const fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd == -1 || close(fd) != 0) {
            state.SkipWithError("open failed");
            break;
        }
    }
}

BENCHMARK(readPiecesVesk)->Name("File read in 64 KiB pieces (at most 1.02)/vesk")->Apply(often);
BENCHMARK(readPiecesBare)->Name("File read in 64 KiB pieces (at most 1.02)/bare")->Apply(often);
BENCHMARK(writePiecesVesk)->Name("File written in 64 KiB pieces (at most 1.02)/vesk")->Apply(often);
BENCHMARK(writePiecesBare)->Name("File written in 64 KiB pieces (at most 1.02)/bare")->Apply(often);
BENCHMARK(readBlocksVesk)->Name("Buffered 16-byte read of a file, twin without a lock (at most 1.0)/vesk");
BENCHMARK(readBlocksBare)->Name("Buffered 16-byte read of a file, twin without a lock (at most 1.0)/bare");
BENCHMARK(writeBlocksVesk)->Name("Buffered 16-byte write of a file, twin without a lock (at most 1.0)/vesk");
BENCHMARK(writeBlocksBare)->Name("Buffered 16-byte write of a file, twin without a lock (at most 1.0)/bare");
BENCHMARK(failedStatVesk)->Name("Failed stat with its reports (at most 1.3)/vesk")->Apply(often);
BENCHMARK(failedStatBare)->Name("Failed stat with its reports (at most 1.3)/bare")->Apply(often);
BENCHMARK(failedOpenVesk)->Name("Failed open with its reports (at most 1.2)/vesk")->Apply(often);
BENCHMARK(failedOpenBare)->Name("Failed open with its reports (at most 1.2)/bare")->Apply(often);
BENCHMARK(openAndCloseVesk)->Name("Open and close (at most 1.05)/vesk");
BENCHMARK(openAndCloseBare)->Name("Open and close (at most 1.05)/bare");

} // namespace
