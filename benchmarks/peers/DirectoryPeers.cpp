#include "../DirectoryBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/DirectoryIterator.h>
#include <Poco/File.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_file_info.h>
#endif

namespace {

#define PEER_WALK(function, peer)                                                                            \
    BENCHMARK(function)->Name("Directory walk of 10,000 entries with sizes/" peer)

PEER_WALK(walk, "vesk");
PEER_WALK(bareWalk, "bare");

/// Runs `visitAll`, which adds the sizes and returns the number of entries. `special` is the number of entries
/// that are counted beside the files.
template <typename Visit>
void walkPeer(benchmark::State& state, int special, Visit visitAll) {
    std::string const& path = getFolder().getPath();
    for (auto _ : state) {
        long long size = 0;
        int const count = visitAll(path, size);
        benchmark::DoNotOptimize(size);
        if (count != ENTRIES + special) {
            state.SkipWithError("entries are missing");
        }
    }
}

#ifdef VESK_PEER_BOOST
void boostWalk(benchmark::State& state) {
    walkPeer(state, 0, [](std::string const& path, long long& size) {
        int count = 0;
        for (auto const& entry : boost::filesystem::directory_iterator(path)) {
            boost::system::error_code error;
            size += static_cast<long long>(boost::filesystem::file_size(entry.path(), error));
            ++count;
        }
        return count;
    });
}
PEER_WALK(boostWalk, "boost");
#endif

#ifdef VESK_PEER_POCO
void pocoWalk(benchmark::State& state) {
    walkPeer(state, 0, [](std::string const& path, long long& size) {
        int count = 0;
        for (Poco::DirectoryIterator it(path), end; it != end; ++it) {
            size += static_cast<long long>(it->getSize());
            ++count;
        }
        return count;
    });
}
PEER_WALK(pocoWalk, "poco");
#endif

#ifdef VESK_PEER_GLIB
void glibWalk(benchmark::State& state) {
    walkPeer(state, 0, [](std::string const& path, long long& size) {
        int count = 0;
        GFile* const folder = g_file_new_for_path(path.c_str());
        GFileEnumerator* const entries = g_file_enumerate_children(
            folder, G_FILE_ATTRIBUTE_STANDARD_NAME "," G_FILE_ATTRIBUTE_STANDARD_SIZE,
            G_FILE_QUERY_INFO_NOFOLLOW_SYMLINKS, nullptr, nullptr);
        GFileInfo* info = nullptr;
        while (g_file_enumerator_iterate(entries, &info, nullptr, nullptr, nullptr) != 0 && info != nullptr) {
            size += g_file_info_get_size(info);
            ++count;
        }
        g_object_unref(entries);
        g_object_unref(folder);
        return count;
    });
}
PEER_WALK(glibWalk, "glib");
#endif

#ifdef VESK_PEER_UV
void uvWalk(benchmark::State& state) {
    walkPeer(state, 0, [](std::string const& path, long long& size) {
        int count = 0;
        uv_fs_t scan;
        uv_fs_scandir(nullptr, &scan, path.c_str(), 0, nullptr);
        uv_dirent_t entry;
        std::string file;
        while (uv_fs_scandir_next(&scan, &entry) != UV_EOF) {
            file.assign(path).append("/").append(entry.name);
            uv_fs_t request;
            if (uv_fs_lstat(nullptr, &request, file.c_str(), nullptr) == 0) {
                size += static_cast<long long>(request.statbuf.st_size);
            }
            uv_fs_req_cleanup(&request);
            ++count;
        }
        uv_fs_req_cleanup(&scan);
        return count;
    });
}
PEER_WALK(uvWalk, "uv");
#endif

#ifdef VESK_PEER_APR
void aprWalk(benchmark::State& state) {
    walkPeer(state, 2, [](std::string const& path, long long& size) {
        AprPool const pool;
        int count = 0;
        apr_dir_t* folder = nullptr;
        if (apr_dir_open(&folder, path.c_str(), pool.raw) != APR_SUCCESS) {
            return 0;
        }
        apr_finfo_t info;
        while (apr_dir_read(&info, APR_FINFO_NAME | APR_FINFO_SIZE, folder) == APR_SUCCESS) {
            size += info.size;
            ++count;
        }
        apr_dir_close(folder);
        return count;
    });
}
PEER_WALK(aprWalk, "apr");
#endif

} // namespace
