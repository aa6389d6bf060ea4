#include "../FileSysBenchmark.cpp"
#include "Peers.h"

#ifdef VESK_PEER_BOOST
#include <boost/filesystem/operations.hpp>
#endif
#ifdef VESK_PEER_POCO
#include <Poco/File.h>
#endif
#ifdef VESK_PEER_APR
#include <apr_file_io.h>
#endif

namespace {

#define PEER_COPY(function, peer) BENCHMARK(function)->Name("Copy of a file of 1 MiB/" peer)

#ifdef VESK_PEER_BOOST
void boostCopy(benchmark::State& state) {
    measure(state, [](Files const& files, void*) {
        boost::system::error_code error;
        boost::filesystem::copy_file(files.source, files.destination, error);
        return error.failed();
    });
}
PEER_COPY(boostCopy, "boost");
#endif

#ifdef VESK_PEER_POCO
void pocoCopy(benchmark::State& state) {
    measure(state, [](Files const& files, void*) {
        Poco::File(files.source).copyTo(files.destination);
        return false;
    });
}
PEER_COPY(pocoCopy, "poco");
#endif

#ifdef VESK_PEER_GLIB
void glibCopy(benchmark::State& state) {
    measure(state, [](Files const& files, void*) {
        GFile* const source = g_file_new_for_path(files.source.c_str());
        GFile* const destination = g_file_new_for_path(files.destination.c_str());
        bool const failed =
            g_file_copy(source, destination, G_FILE_COPY_NONE, nullptr, nullptr, nullptr, nullptr) == 0;
        g_object_unref(source);
        g_object_unref(destination);
        return failed;
    });
}
PEER_COPY(glibCopy, "glib");
#endif

#ifdef VESK_PEER_UV
void uvCopy(benchmark::State& state) {
    measure(state, [](Files const& files, void*) {
        uv_fs_t request;
        int const result = uv_fs_copyfile(
            nullptr, &request, files.source.c_str(), files.destination.c_str(), UV_FS_COPYFILE_EXCL, nullptr);
        uv_fs_req_cleanup(&request);
        return result != 0;
    });
}
PEER_COPY(uvCopy, "uv");
#endif

#ifdef VESK_PEER_APR
void aprCopy(benchmark::State& state) {
    AprPool const pool;
    measure(state, [&pool](Files const& files, void*) {
        bool const failed = apr_file_copy(
                                files.source.c_str(), files.destination.c_str(), APR_FPROT_FILE_SOURCE_PERMS,
                                pool.raw) != APR_SUCCESS;
        apr_pool_clear(pool.raw);
        return failed;
    });
}
PEER_COPY(aprCopy, "apr");
#endif

} // namespace
