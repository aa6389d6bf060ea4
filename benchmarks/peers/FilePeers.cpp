#include "../FileBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_errno.h>
#include <apr_file_info.h>
#include <apr_file_io.h>
#endif

namespace {

#define PEER_STAT(function, peer) BENCHMARK(function)->Name("Failed stat, cause learned/" peer)->Apply(often)
#define PEER_OPEN(function, peer) BENCHMARK(function)->Name("Failed open, cause learned/" peer)->Apply(often)
#define PEER_FILE(File, peer)                                                                                \
    BENCHMARK(readPieces<File>)->Name("File read in 64 KiB pieces/" peer)->Apply(often);                     \
    BENCHMARK(writePieces<File>)->Name("File written in 64 KiB pieces/" peer)->Apply(often)
#define PEER_BUFFERED(File, peer)                                                                            \
    BENCHMARK(readBlocks<File>)->Name("Buffered 16-byte read of a file, twin without a lock/" peer);         \
    BENCHMARK(writeBlocks<File>)->Name("Buffered 16-byte write of a file, twin without a lock/" peer)

PEER_STAT(failedStatVesk, "vesk");
PEER_STAT(failedStatBare, "bare");
PEER_OPEN(failedOpenVesk, "vesk");
PEER_OPEN(failedOpenBare, "bare");

/// Runs `attempt`, which returns the text of the cause and a null pointer if it did not fail.
template <typename Attempt>
void fail(benchmark::State& state, Attempt attempt) {
    for (auto _ : state) {
        char const* const text = attempt();
        if (text == nullptr) {
            state.SkipWithError("no failure");
            break;
        }
        benchmark::DoNotOptimize(*text);
    }
}

// The rows of the files are templates of a class with `read` and `write`, which return false on failure, and
// `rewind`. `BUFFER` is the size of the buffer; 0 where the pieces need none.

template <typename File>
void readPieces(benchmark::State& state) {
    TempFile const temp;
    File file(temp.getPath(), false, 0);
    for (auto _ : state) {
        file.rewind();
        for (unsigned int at = 0; at < FILE_SIZE; at += PIECE_SIZE) {
            if (!file.read(s_piece, PIECE_SIZE)) {
                state.SkipWithError("read failed");
                return;
            }
        }
    }
}

template <typename File>
void writePieces(benchmark::State& state) {
    TempFile const temp;
    File file(temp.getPath(), true, 0);
    for (auto _ : state) {
        file.rewind();
        for (unsigned int at = 0; at < FILE_SIZE; at += PIECE_SIZE) {
            if (!file.write(s_piece, PIECE_SIZE)) {
                state.SkipWithError("write failed");
                return;
            }
        }
    }
}

template <typename File>
void readBlocks(benchmark::State& state) {
    File file("/dev/zero", false, BUFFER_SIZE);
    char block[BLOCK_SIZE];
    for (auto _ : state) {
        if (!file.read(block, sizeof block)) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(block);
    }
}

template <typename File>
void writeBlocks(benchmark::State& state) {
    File file("/dev/null", true, BUFFER_SIZE);
    char block[BLOCK_SIZE] = {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        if (!file.write(block, sizeof block)) {
            state.SkipWithError("write failed");
            break;
        }
    }
}

#ifdef VESK_PEER_BOOST
void boostStat(benchmark::State& state) {
    boost::filesystem::path const path(MISSING);
    std::string text;
    fail(state, [&] {
        boost::system::error_code error;
        boost::filesystem::file_size(path, error);
        text = error.message();
        return error ? text.c_str() : nullptr;
    });
}
PEER_STAT(boostStat, "boost");

/// A C++ stream on a path of Boost. The buffer must be set before the file is opened.
class BoostFile {
public:
    BoostFile(char const* path, bool writes, unsigned int size) : m_buffer(size) {
        if (size != 0) {
            m_file.rdbuf()->pubsetbuf(m_buffer.data(), size);
        }
        m_file.open(
            boost::filesystem::path(path), std::ios::binary | (writes ? std::ios::out : std::ios::in));
    }

    void rewind() { m_file.seekg(0); }
    bool read(char* data, unsigned int size) { return static_cast<bool>(m_file.read(data, size)); }
    bool write(char const* data, unsigned int size) { return static_cast<bool>(m_file.write(data, size)); }

private:
    std::vector<char> m_buffer;
    boost::filesystem::fstream m_file;
};
PEER_FILE(BoostFile, "boost");
PEER_BUFFERED(BoostFile, "boost");
#endif

#ifdef VESK_PEER_POCO
void pocoStat(benchmark::State& state) {
    std::string const path(MISSING);
    std::string text;
    fail(state, [&]() -> char const* {
        try {
            benchmark::DoNotOptimize(Poco::File(path).getSize());
        } catch (Poco::Exception const& failure) {
            text = failure.displayText();
            return text.c_str();
        }
        return nullptr;
    });
}
PEER_STAT(pocoStat, "poco");

void pocoOpen(benchmark::State& state) {
    std::string const path(MISSING);
    std::string text;
    fail(state, [&]() -> char const* {
        try {
            Poco::FileInputStream const file(path);
        } catch (Poco::Exception const& failure) {
            text = failure.displayText();
            return text.c_str();
        }
        return nullptr;
    });
}
PEER_OPEN(pocoOpen, "poco");

/// The stream has a buffer of a fixed size, 4 KiB.
class PocoFile {
public:
    PocoFile(char const* path, bool writes, unsigned int)
        : m_file(path, writes ? std::ios::out | std::ios::in : std::ios::in) {}

    void rewind() { m_file.seekg(0); }
    bool read(char* data, unsigned int size) { return static_cast<bool>(m_file.read(data, size)); }
    bool write(char const* data, unsigned int size) { return static_cast<bool>(m_file.write(data, size)); }

private:
    Poco::FileStream m_file;
};
PEER_FILE(PocoFile, "poco");

/// A device cannot be sought, which the stream for both directions does.
class PocoDevice {
public:
    PocoDevice(char const* path, bool writes, unsigned int) {
        if (writes) {
            m_out.open(path, std::ios::out);
        } else {
            m_in.open(path, std::ios::in);
        }
    }

    bool read(char* data, unsigned int size) { return static_cast<bool>(m_in.read(data, size)); }
    bool write(char const* data, unsigned int size) { return static_cast<bool>(m_out.write(data, size)); }

private:
    Poco::FileInputStream m_in;
    Poco::FileOutputStream m_out;
};
PEER_BUFFERED(PocoDevice, "poco");
#endif

#ifdef VESK_PEER_GLIB
void glibStat(benchmark::State& state) {
    fail(state, [] {
        GStatBuf info;
        return g_stat(MISSING, &info) == 0 ? nullptr : g_strerror(errno);
    });
}
PEER_STAT(glibStat, "glib");

void glibOpen(benchmark::State& state) {
    fail(state, [] { return g_open(MISSING, O_RDONLY | O_CLOEXEC, 0) == -1 ? g_strerror(errno) : nullptr; });
}
PEER_OPEN(glibOpen, "glib");

/// The streams of GIO, with a buffer stream on top if the row requires one.
class GlibFile {
public:
    GlibFile(char const* path, bool writes, unsigned int size) {
        GFile* const file = g_file_new_for_path(path);
        if (writes) {
            m_stream = g_file_open_readwrite(file, nullptr, nullptr);
            m_out = G_OUTPUT_STREAM(g_object_ref(g_io_stream_get_output_stream(G_IO_STREAM(m_stream))));
            if (size != 0) {
                GOutputStream* const base = m_out;
                m_out = g_buffered_output_stream_new_sized(base, size);
                g_object_unref(base);
            }
        } else {
            m_in = G_INPUT_STREAM(g_file_read(file, nullptr, nullptr));
            if (size != 0) {
                GInputStream* const base = m_in;
                m_in = g_buffered_input_stream_new_sized(base, size);
                g_object_unref(base);
            }
        }
        g_object_unref(file);
        if (m_in == nullptr && m_out == nullptr) {
            abort();
        }
    }
    ~GlibFile() {
        g_clear_object(&m_in);
        g_clear_object(&m_out);
        g_clear_object(&m_stream);
    }
    GlibFile(GlibFile const&) = delete;
    GlibFile& operator=(GlibFile const&) = delete;

    void rewind() {
        GSeekable* const seekable = m_in != nullptr ? G_SEEKABLE(m_in) : G_SEEKABLE(m_out);
        g_seekable_seek(seekable, 0, G_SEEK_SET, nullptr, nullptr);
    }
    bool read(char* data, unsigned int size) {
        gsize count = 0;
        return g_input_stream_read_all(m_in, data, size, &count, nullptr, nullptr) != 0 && count == size;
    }
    bool write(char const* data, unsigned int size) {
        return g_output_stream_write_all(m_out, data, size, nullptr, nullptr, nullptr) != 0;
    }

private:
    GFileIOStream* m_stream = nullptr;
    GInputStream* m_in = nullptr;
    GOutputStream* m_out = nullptr;
};
PEER_FILE(GlibFile, "glib");
PEER_BUFFERED(GlibFile, "glib");
#endif

#ifdef VESK_PEER_UV
void uvStat(benchmark::State& state) {
    char text[256];
    fail(state, [&text] {
        uv_fs_t request;
        int const result = uv_fs_stat(nullptr, &request, MISSING, nullptr);
        uv_fs_req_cleanup(&request);
        return result == 0 ? nullptr : uv_strerror_r(result, text, sizeof text);
    });
}
PEER_STAT(uvStat, "uv");

void uvOpen(benchmark::State& state) {
    char text[256];
    fail(state, [&text] {
        uv_fs_t request;
        int const result = uv_fs_open(nullptr, &request, MISSING, UV_FS_O_RDONLY, 0, nullptr);
        uv_fs_req_cleanup(&request);
        return result >= 0 ? nullptr : uv_strerror_r(result, text, sizeof text);
    });
}
PEER_OPEN(uvOpen, "uv");

/// Has no buffered form. The position is an argument of each call.
class UvFile {
public:
    UvFile(char const* path, bool writes, unsigned int) {
        uv_fs_t request;
        m_fd = uv_fs_open(nullptr, &request, path, writes ? UV_FS_O_WRONLY : UV_FS_O_RDONLY, 0, nullptr);
        uv_fs_req_cleanup(&request);
        if (m_fd < 0) {
            abort();
        }
    }
    ~UvFile() {
        uv_fs_t request;
        uv_fs_close(nullptr, &request, m_fd, nullptr);
        uv_fs_req_cleanup(&request);
    }
    UvFile(UvFile const&) = delete;
    UvFile& operator=(UvFile const&) = delete;

    void rewind() { m_position = 0; }
    bool read(char* data, unsigned int size) {
        uv_buf_t const buffer = uv_buf_init(data, size);
        uv_fs_t request;
        int const count = uv_fs_read(nullptr, &request, m_fd, &buffer, 1, m_position, nullptr);
        uv_fs_req_cleanup(&request);
        m_position += count;
        return count == static_cast<int>(size);
    }
    bool write(char* data, unsigned int size) {
        uv_buf_t const buffer = uv_buf_init(data, size);
        uv_fs_t request;
        int const count = uv_fs_write(nullptr, &request, m_fd, &buffer, 1, m_position, nullptr);
        uv_fs_req_cleanup(&request);
        m_position += count;
        return count == static_cast<int>(size);
    }

private:
    uv_file m_fd = -1;
    int64_t m_position = 0;
};
PEER_FILE(UvFile, "uv");
#endif

#ifdef VESK_PEER_APR
void aprStat(benchmark::State& state) {
    AprPool const pool;
    char text[256];
    fail(state, [&] {
        apr_finfo_t info;
        apr_status_t const status = apr_stat(&info, MISSING, APR_FINFO_NORM, pool.raw);
        char const* const result = status == APR_SUCCESS ? nullptr : apr_strerror(status, text, sizeof text);
        apr_pool_clear(pool.raw);
        return result;
    });
}
PEER_STAT(aprStat, "apr");

void aprOpen(benchmark::State& state) {
    AprPool const pool;
    char text[256];
    fail(state, [&] {
        apr_file_t* file = nullptr;
        apr_status_t const status = apr_file_open(&file, MISSING, APR_FOPEN_READ, APR_OS_DEFAULT, pool.raw);
        char const* const result = status == APR_SUCCESS ? nullptr : apr_strerror(status, text, sizeof text);
        apr_pool_clear(pool.raw);
        return result;
    });
}
PEER_OPEN(aprOpen, "apr");

class AprFile {
public:
    AprFile(char const* path, bool writes, unsigned int size) {
        apr_int32_t const flags = (writes ? APR_FOPEN_WRITE : APR_FOPEN_READ) | APR_FOPEN_BINARY |
            (size != 0 ? APR_FOPEN_BUFFERED : 0);
        if (apr_file_open(&m_file, path, flags, APR_OS_DEFAULT, m_pool.raw) != APR_SUCCESS ||
            (size != 0 &&
             apr_file_buffer_set(m_file, static_cast<char*>(apr_palloc(m_pool.raw, size)), size) !=
                 APR_SUCCESS)) {
            abort();
        }
    }
    ~AprFile() { apr_file_close(m_file); }
    AprFile(AprFile const&) = delete;
    AprFile& operator=(AprFile const&) = delete;

    void rewind() {
        apr_off_t start = 0;
        apr_file_seek(m_file, APR_SET, &start);
    }
    bool read(char* data, apr_size_t size) {
        apr_size_t count = 0;
        return apr_file_read_full(m_file, data, size, &count) == APR_SUCCESS && count == size;
    }
    bool write(char const* data, apr_size_t size) {
        apr_size_t count = 0;
        return apr_file_write_full(m_file, data, size, &count) == APR_SUCCESS && count == size;
    }

private:
    AprPool m_pool;
    apr_file_t* m_file = nullptr;
};
PEER_FILE(AprFile, "apr");
PEER_BUFFERED(AprFile, "apr");
#endif

} // namespace
