#include <tarncommon/stream/IBinInputStream.h>
#include <tarncommon/stream/IBinOutputStream.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr unsigned int BUFFER_SIZE = 4096;
constexpr unsigned int BLOCK_SIZE = 16;
char const* const SOURCE = "/dev/zero";
char const* const SINK = "/dev/null";

/// An owned descriptor, closed by the destructor.
class Descriptor {
public:
    Descriptor(char const* path, int flags) : m_fd(open(path, flags | O_CLOEXEC)) {
        if (m_fd == -1) {
            abort();
        }
    }
    ~Descriptor() { close(m_fd); }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int get() const { return m_fd; }

private:
    int m_fd;
};

class Input final : public std::IBinInputStream {
public:
    Input() : IBinInputStream(true, BUFFER_SIZE) {}
    bool isValid() const override { return isReadBufferSound(); }

protected:
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override {
        ssize_t const count = ::read(m_descriptor.get(), buffer, size);
        read = count > 0 ? static_cast<unsigned int>(count) : 0;
        return count < 0;
    }

private:
    Descriptor m_descriptor{SOURCE, O_RDONLY};
};

class Output final : public std::IBinOutputStream {
public:
    Output() : IBinOutputStream(true, BUFFER_SIZE) {}
    bool isValid() const override { return isWriteBufferSound(); }

protected:
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override {
        ssize_t const count = ::write(m_descriptor.get(), buffer, size);
        written = count > 0 ? static_cast<unsigned int>(count) : 0;
        return count < 0;
    }
    bool performFlush() override { return false; }

private:
    Descriptor m_descriptor{SINK, O_WRONLY};
};

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

void readVesk(benchmark::State& state) {
    Input input;
    char block[BLOCK_SIZE];
    unsigned int count = 0;
    for (auto _ : state) {
        if (input.read(block, sizeof block, count) != 1 || count != sizeof block) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(block);
    }
}

void readBare(benchmark::State& state) {
    StandardFile const file(SOURCE, "rb");
    char block[BLOCK_SIZE];
    for (auto _ : state) {
        if (fread(block, 1, sizeof block, file.get()) != sizeof block) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(block);
    }
}

void readBareUnlocked(benchmark::State& state) {
    StandardFile const file(SOURCE, "rb");
    char block[BLOCK_SIZE];
    for (auto _ : state) {
        if (fread_unlocked(block, 1, sizeof block, file.get()) != sizeof block) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(block);
    }
}

void writeVesk(benchmark::State& state) {
    Output output;
    char block[BLOCK_SIZE] = {};
    unsigned int written = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        if (output.write(block, sizeof block, written) != 1 || written != sizeof block) {
            state.SkipWithError("write failed");
            break;
        }
    }
    output.flush(true);
}

void writeBare(benchmark::State& state) {
    StandardFile const file(SINK, "wb");
    char block[BLOCK_SIZE] = {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        if (fwrite(block, 1, sizeof block, file.get()) != sizeof block) {
            state.SkipWithError("write failed");
            break;
        }
    }
}

void writeBareUnlocked(benchmark::State& state) {
    StandardFile const file(SINK, "wb");
    char block[BLOCK_SIZE] = {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        if (fwrite_unlocked(block, 1, sizeof block, file.get()) != sizeof block) {
            state.SkipWithError("write failed");
            break;
        }
    }
}

BENCHMARK(readVesk)->Name("Buffered 16-byte read (at most 1.0)/vesk");
BENCHMARK(readBare)->Name("Buffered 16-byte read (at most 1.0)/bare");
BENCHMARK(readVesk)->Name("Buffered 16-byte read, twin without a lock (at most 1.0)/vesk");
BENCHMARK(readBareUnlocked)->Name("Buffered 16-byte read, twin without a lock (at most 1.0)/bare");
BENCHMARK(writeVesk)->Name("Buffered 16-byte write (at most 1.0)/vesk");
BENCHMARK(writeBare)->Name("Buffered 16-byte write (at most 1.0)/bare");
BENCHMARK(writeVesk)->Name("Buffered 16-byte write, twin without a lock (at most 1.0)/vesk");
BENCHMARK(writeBareUnlocked)->Name("Buffered 16-byte write, twin without a lock (at most 1.0)/bare");

} // namespace
