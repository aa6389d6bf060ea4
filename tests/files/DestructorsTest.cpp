#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/TempFolder.h"

#include <tarncommon/error/ErrorOutput.h>
#include <vesk/BinTempFileRW.h>
#include <vesk/Directory.h>
#include <vesk/FmtFileWrapper.h>
#include <vesk/MemBinFileBase.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/Pipe.h>
#include <vesk/RWLock.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/SerialPort.h>
#include <vesk/SharedMemoryServer.h>
#include <vesk/SharedObj.h>
#include <vesk/SpinLock.h>
#include <vesk/StreamBinFileRW.h>
#include <vesk/SysError.h>
#include <vesk/TCPSocket.h>
#include <vesk/UnixSocket.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <dlfcn.h>
#include <istream>
#include <memory>
#include <mqueue.h>
#include <ostream>
#include <pthread.h>
#include <semaphore.h>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, closedir, (DIR * dir), (dir))
VESK_INJECT_ERRNO(int, -1, dlclose, (void* handle), (handle))
VESK_INJECT_ERRNO(int, -1, fsync, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, mq_close, (mqd_t queue), (queue))
VESK_INJECT_ERRNO(int, -1, sem_close, (sem_t * semaphore), (semaphore))
VESK_INJECT_ERRNO(int, -1, tcdrain, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))
VESK_INJECT_RESULT(pthread_rwlock_destroy, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_destroy, (pthread_spinlock_t * l), (l))

/// Runs the destructor of each class with a clean-up that can fail, while an earlier failure is pending.

namespace {

using support::chainIs;
using support::Fault;
using vesk::BinFileBase;
using vesk::Creatable;
using vesk::FileAccess;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

using Object = std::shared_ptr<void>;
using TextFile = vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, BinFileBase::ReadFlags>;

/// An object of each class, and the call of its clean-up that is to fail.
struct Row {
    char const* name;
    support::Injected* call;
    Object (*make)(support::TempFolder const& folder);
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << row.name;
}

template <typename File>
Object makeFile(support::TempFolder const& folder) {
    auto file = std::make_shared<File>();
    EXPECT_FALSE(file->open(folder.makeFile("file").c_str(), BinFileBase::READ_WRITE, FileAccess::none));
    return file;
}

/// The name is for this process alone, and is removed at once.
template <typename Server, typename... Arguments>
Object makeServer(Arguments... arguments) {
    auto server = std::make_shared<Server>();
    std::string const name = "vesk-test-destructors-" + std::to_string(getpid());
    EXPECT_FALSE(server->create(name.c_str(), arguments...));
    EXPECT_FALSE(server->deleteName());
    return server;
}

Object makePort(support::TempFolder const&) {
    int const master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(0, grantpt(master));
    EXPECT_EQ(0, unlockpt(master));
    char path[64] = "";
    EXPECT_EQ(0, ptsname_r(master, path, sizeof path));
    auto port = std::make_shared<vesk::SerialPort>(path);
    EXPECT_FALSE(port->open());
    return port;
}

Object makeSharedObj(support::TempFolder const&) {
    auto library = std::make_shared<vesk::SharedObj>();
    EXPECT_FALSE(library->load("libc.so.6"));
    return library;
}

class Destructors : public testing::TestWithParam<Row> {};

TEST_P(Destructors, whoseCleanUpFailsLeavesAnEarlierFailurePending) {
    support::TempFolder const folder;
    // In a child: what it does not close is gone with it.
    auto const end = support::runInChild([&] {
        Row const& row = GetParam();
        support::EventRecorder const events;
        Object object = row.make(folder);
        ASSERT_TRUE(chainIs({}));
        std::vector<support::ExpectedReport> pending;
        for (int level = 0; level < 12; ++level) {
            std::ErrorOutput("earlier", level, level == 0)(SysError, SysErrorId::UNCLASSIFIED, level);
            pending.emplace_back(
                SysError, SysErrorId::UNCLASSIFIED,
                support::rowText(SysErrorId::UNCLASSIFIED, std::to_string(level)));
        }
        Fault const fault(*row.call, EIO);
        object.reset();
        EXPECT_NE(0, fault.getCalls());
        EXPECT_TRUE(chainIs(pending));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

INSTANTIATE_TEST_SUITE_P(
    All, Destructors,
    testing::Values(
        Row{"BinFileBase", &inject_close, makeFile<BinFileBase>},
        Row{"MemBinFileBase", &inject_close, makeFile<vesk::MemBinFileBase>},
        Row{"StreamBinFileR", &inject_close,
            [](auto& folder) -> Object {
                auto file = std::make_shared<vesk::StreamBinFileR>();
                EXPECT_FALSE(file->open(folder.makeFile("file").c_str(), BinFileBase::READ));
                return file;
            }},
        Row{"StreamBinFileW", &inject_fsync,
            [](auto& folder) -> Object {
                auto file = std::make_shared<vesk::StreamBinFileW>();
                EXPECT_FALSE(file->open(folder.makeFile("file").c_str(), BinFileBase::WRITE));
                return file;
            }},
        Row{"StreamBinFileRW", &inject_fsync,
            [](auto& folder) -> Object {
                auto file = std::make_shared<vesk::StreamBinFileRW>();
                EXPECT_FALSE(file->open(folder.makeFile("file").c_str(), BinFileBase::READ_WRITE));
                return file;
            }},
        Row{"SerialPort", &inject_tcdrain, makePort},
        Row{"BinTempFileRWClose", &inject_close,
            [](auto& folder) -> Object {
                return std::make_shared<vesk::BinTempFileRW>((folder / "temp").c_str());
            }},
        Row{"BinTempFileRWRemove", &inject_unlink,
            [](auto& folder) -> Object {
                return std::make_shared<vesk::BinTempFileRW>((folder / "temp").c_str());
            }},
        Row{"Pipe", &inject_close, [](auto&) -> Object { return std::make_shared<vesk::Pipe>(); }},
        Row{"FmtFileWrapper", &inject_close,
            [](auto&) -> Object { return std::make_shared<TextFile>("/dev/null", BinFileBase::READ); }},
        Row{"Directory", &inject_closedir,
            [](auto& folder) -> Object { return std::make_shared<vesk::Directory>(folder.getPath(), true); }},
        Row{"SharedMemoryServer", &inject_close,
            [](auto&) { return makeServer<vesk::SharedMemoryServer>(4096U, Creatable::REPLACE); }},
        Row{"MsgQueueServer", &inject_mq_close,
            [](auto&) { return makeServer<vesk::MsgQueueServer>(16U, 1U, Creatable::REPLACE); }},
        Row{"SemaphoreCreator", &inject_sem_close,
            [](auto&) { return makeServer<vesk::SemaphoreCreator>(1U, Creatable::REPLACE); }},
        Row{"SharedObj", &inject_dlclose, makeSharedObj},
        Row{"RWLock", &inject_pthread_rwlock_destroy,
            [](auto&) -> Object { return std::make_shared<vesk::RWLock>(); }},
        Row{"SpinLock", &inject_pthread_spin_destroy,
            [](auto&) -> Object { return std::make_shared<vesk::SpinLock>(); }},
        Row{"IPSocket", &inject_close,
            [](auto&) -> Object {
                vesk::IPSocket::IPAddress const any;
                return std::make_shared<vesk::TCPSocket>(true, 0U, 0U, any, any, false, vesk::IPSocket::IPV4);
            }},
        Row{"UnixSocket", &inject_close,
            [](auto&) -> Object {
                return std::make_shared<vesk::UnixSocket>(
                    true, 0U, 0U, vesk::Path(), vesk::Path("peer"), vesk::UnixSocketBase::ABSTRACT);
            }}),
    [](testing::TestParamInfo<Row> const& instance) { return instance.param.name; });

} // namespace
