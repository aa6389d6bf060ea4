#include "FileTests.h"

#include <vesk/BinTempFileRW.h>
#include <vesk/FmtFileWrapper.h>
#include <vesk/MemBinFileBase.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/RWLock.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/SerialPort.h>
#include <vesk/SharedMemoryServer.h>
#include <vesk/SharedObj.h>
#include <vesk/SpinLock.h>
#include <vesk/StreamBinFileRW.h>
#include <vesk/TCPSocket.h>
#include <vesk/UnixSocket.h>

#include <dirent.h>
#include <dlfcn.h>
#include <mqueue.h>
#include <semaphore.h>
#include <termios.h>

VESK_INJECT_ERRNO(int, -1, closedir, (DIR * dir), (dir))
VESK_INJECT_ERRNO(int, -1, dlclose, (void* handle), (handle))
VESK_INJECT_ERRNO(int, -1, mq_close, (mqd_t queue), (queue))
VESK_INJECT_ERRNO(int, -1, sem_close, (sem_t * semaphore), (semaphore))
VESK_INJECT_ERRNO(int, -1, tcdrain, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))
VESK_INJECT_RESULT(pthread_rwlock_destroy, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_destroy, (pthread_spinlock_t * l), (l))

/// Runs the destructor of each class with a clean-up that can fail, while an earlier failure is pending.

namespace {

using namespace support;
using vesk::Creatable;

using Object = std::shared_ptr<void>;
using TextFile = vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, BinFileBase::ReadFlags>;

/// An object of each class, and the call of its clean-up that fails.
struct Row : NamedRow {
    Injected* call;
    Object (*make)(TempFolder const& folder);
};

template <typename T>
Object make(TempFolder const& /*unused*/) {
    return std::make_shared<T>();
}

template <typename File, typename Flags = BinFileBase::OpenFlags>
Object makeFile(TempFolder const& folder) {
    auto file = std::make_shared<File>();
    EXPECT_FALSE(file->open(folder.makeFile("file").c_str(), Flags(), FileAccess::none));
    return file;
}

/// The name is only for this process, and is removed at once.
template <typename Server, typename... Arguments>
Object makeServer(Arguments... arguments) {
    auto server = std::make_shared<Server>();
    std::string const name = "vesk-test-destructors-" + std::to_string(getpid());
    EXPECT_FALSE(server->create(name.c_str(), arguments...));
    EXPECT_FALSE(server->deleteName());
    return server;
}

Object makeTempFile(TempFolder const& folder) {
    return std::make_shared<vesk::BinTempFileRW>((folder / "temp").c_str());
}

Object makePort(TempFolder const& /*unused*/) {
    int const master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(0, grantpt(master));
    EXPECT_EQ(0, unlockpt(master));
    char path[64] = "";
    EXPECT_EQ(0, ptsname_r(master, path, sizeof path));
    auto port = std::make_shared<vesk::SerialPort>(path);
    EXPECT_FALSE(port->open());
    return port;
}

Object makeSharedObj(TempFolder const& /*unused*/) {
    auto library = std::make_shared<vesk::SharedObj>();
    EXPECT_FALSE(library->load("libc.so.6"));
    return library;
}

Object makeTCPSocket(TempFolder const& /*unused*/) {
    vesk::IPSocket::IPAddress const any;
    return std::make_shared<vesk::TCPSocket>(true, 0U, 0U, any, any, false, vesk::IPSocket::IPV4);
}

Object makeUnixSocket(TempFolder const& /*unused*/) {
    return std::make_shared<vesk::UnixSocket>(
        true, 0U, 0U, vesk::Path(), vesk::Path("peer"), vesk::UnixSocketBase::ABSTRACT);
}

Row const DESTRUCTORS[] = {
    {"BinFileBase", &inject_close, makeFile<BinFileBase>},
    {"MemBinFileBase", &inject_close, makeFile<vesk::MemBinFileBase>},
    {"StreamBinFileR", &inject_close, makeFile<vesk::StreamBinFileR, BinFileBase::ReadFlags>},
    {"StreamBinFileW", &inject_fsync, makeFile<vesk::StreamBinFileW, BinFileBase::WriteFlags>},
    {"StreamBinFileRW", &inject_fsync, makeFile<vesk::StreamBinFileRW, BinFileBase::ReadWriteFlags>},
    {"SerialPort", &inject_tcdrain, makePort},
    {"BinTempFileRWClose", &inject_close, makeTempFile},
    {"BinTempFileRWRemove", &inject_unlink, makeTempFile},
    {"Pipe", &inject_close, make<Pipe>},
    {"FmtFileWrapper", &inject_close,
     [](auto&) -> Object { return std::make_shared<TextFile>("/dev/null", BinFileBase::READ); }},
    {"Directory", &inject_closedir,
     [](auto& folder) -> Object { return std::make_shared<Directory>(folder.getPath(), true); }},
    {"SharedMemoryServer", &inject_close,
     [](auto&) { return makeServer<vesk::SharedMemoryServer>(4096U, Creatable::REPLACE); }},
    {"MsgQueueServer", &inject_mq_close,
     [](auto&) { return makeServer<vesk::MsgQueueServer>(16U, 1U, Creatable::REPLACE); }},
    {"SemaphoreCreator", &inject_sem_close,
     [](auto&) { return makeServer<vesk::SemaphoreCreator>(1U, Creatable::REPLACE); }},
    {"SharedObj", &inject_dlclose, makeSharedObj},
    {"RWLock", &inject_pthread_rwlock_destroy, make<vesk::RWLock>},
    {"SpinLock", &inject_pthread_spin_destroy, make<vesk::SpinLock>},
    {"IPSocket", &inject_close, makeTCPSocket},
    {"UnixSocket", &inject_close, makeUnixSocket},
};

VESK_TEST_TABLE(Destructors, failedCleanUpLeavesAnEarlierFailurePending, testing::Test, DESTRUCTORS) {
    TempFolder const folder;
    // In a child, so that nothing stays open.
    expectInChild([&] {
        EventRecorder const events;
        Object object = GetParam().make(folder);
        ASSERT_TRUE(chainIs({}));
        std::vector<ExpectedReport> pending;
        for (int level = 0; level < 12; ++level) {
            std::ErrorOutput("earlier", level, level == 0)(SysErrorId::UNCLASSIFIED, level);
            pending.emplace_back(
                SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, std::to_string(level)));
        }
        Fault const fault(*GetParam().call, EIO);
        object.reset();
        EXPECT_NE(0, fault.getCalls());
        EXPECT_TRUE(chainIs(pending));
    });
}

} // namespace
