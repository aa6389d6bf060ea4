#pragma once

#include "OperationRow.h"

namespace operations {

/// The prefix of temporary files.
inline std::string const TEMPORARY = "/tmp/" + getName("temporary");

/// Operations on memory, threads, events, text and files.
Row const LOCAL_ROWS[] = {
    // ---- tarncommon ----
    {"Buf", "R", [] { return isBroken(std::Buf(100)); }},
    {"Buf_copy", "R", [] { return isBroken(std::Buf(std::Buf(100))); }},
    {"unicode_String_fromUTF8", "T", [] { return std::unicode::String::fromUTF8(g_long).isEmpty(); }},
    {"unicode_String_toUTF8", "TT",
     [] {
         static auto const s_text = std::unicode::String::fromUTF8(LONG);
         return s_text.toUTF8() != LONG || s_text.substr(1, 60).getLength() != 60;
     }},
    {"ErrorStorage_fiveLevels", "-",
     [] {
         for (int i = 0; i < 5; ++i) {
             std::ErrorOutput("level", i, i == 0)(vesk::SysErrorId::NO_SUCH_PROCESS);
         }
         std::ErrorStorage::ack();
         std::ErrorStorage::Chain::ofThread().unmap();
         return false;
     },
     "the last levels have no text of their own then"},
    {"ErrorApi_getReasonList", "T",
     [] {
         std::ErrorOutput("level", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
         std::ErrorStorage::ack();
         return tarn_error.getReasonList().empty();
     }},
    {"Channel", "T", [] { return tracing::Channel(g_long, 1, 0).getName() != g_long; }},
    // ---- frame ----
    {"Shared", "",
     [] {
         static std::Shared<int> s_shared;
         return *std::SharedBase::Ptr<int>(s_shared) != 0;
     }},
    {"MemoryPool", "AWWAW",
     [] {
         std::MemoryPool<std::UsePoolOnDepletion, vesk::Mutex, std::FakeCondition> pool(16, 2);
         void* const items[] = {pool.get(), pool.get(), pool.get()};
         for (void* const item : items) {
             pool.thankYou(item);
         }
         return items[2] == nullptr;
     },
     "a policy that needs the heap asserts"},
    {"UnicodeString_narrow", "", [] { return vesk::UnicodeString(g_long).c_str() == nullptr; }},
    {"UnicodeString_wide", "TW", [] { return vesk::UnicodeString(std::wstring(WIDE)).c_str() == nullptr; }},
    {"UnicodeString_toWide", "WT", [] { return std::wstring(vesk::UnicodeString(LONG)).empty(); }},
    {"UnicodeString_copy", "",
     [] {
         vesk::UnicodeString const text(g_long);
         vesk::UnicodeString const same(text);
         return strcmp(same.c_str(), LONG) != 0;
     }},
    {"Vesk_setDefaultConfigDir", "T",
     [] {
         std::string const before = vesk::Vesk::setDefaultConfigDir(g_long);
         return vesk::getDefaultConfigDir() != g_long;
     }},
    {"SystemError_getString", "*T-", [] { return vesk::SystemError(EADDRNOTAVAIL).getString().empty(); },
     "the C library has a text without it"},
    {"CalendarTime", "", [] { return vesk::CalendarTime(true).getYear() < 2000; }},
    // ---- threads ----
    {"Thread", "W-",
     [] {
         vesk::Thread thread([](void*) {}, nullptr, "allocations");
         return isBroken(thread) || thread.start() || thread.join();
     },
     "the thread has no name then"},
    {"Thread_setCPUAffinity", "W-T",
     [] {
         std::vector<bool> processors;
         vesk::Thread thread([](void*) {}, nullptr, "allocations");
         bool const failed =
             isBroken(thread) || thread.getCPUAffinity(processors) || thread.setCPUAffinity(processors);
         return thread.isValid() && (thread.start() || thread.join()) ? true : failed;
     },
     "the thread has no name then"},
    {"Timer", "TTTW-T",
     [] {
         vesk::Timer timer([](vesk::Timer*) {}, true);
         return timer.start(3600000, false) || timer.stop();
     },
     "the thread has no name then"},
    {"Timer_start", "", [] { return g_timer->start(3600000, false) || g_timer->stop(); }},
    {"Timer_otherStarts", "",
     [] {
         bool const failed = g_timer->startFixedRate(3600000) || g_timer->snooze();
         vesk::Timer::procedure(g_timer.get());
         return g_timer->stop() || failed;
     }},
    {"Alarm_ofOwnEngine", "*TW-",
     [] {
         vesk::Alarm::Timer engine(SIGRTMIN + 8, "allocations", 0);
         std::SharedBase::Ptr<vesk::Alarm::Timer> const pointer(nullptr, &engine);
         std::vector<std::unique_ptr<vesk::Alarm>> alarms;
         for (int i = 0; i < 40; ++i) {
             alarms.push_back(std::make_unique<vesk::Alarm>(
                 pointer, nullptr, [](void*) {}, nullptr));
             alarms.back()->start(tarnbase::Duration(3600000));
         }
         vesk::Alarm::Timer::ring(&engine);
         for (auto const& alarm : alarms) {
             alarm->stop();
         }
         return false;
     },
     "the thread has no name then"},
    // ---- events ----
    {"SignalCatcher", "",
     [] {
         vesk::SignalCatcher const catcher(
             SIGURG, [](int, void*) {}, nullptr);
         return false;
     }},
    {"SignalDispatcher", "W-T",
     [] {
         vesk::SignalDispatcher const dispatcher;
         return false;
     },
     "the thread has no name then"},
    {"SignalQueue_pop", "F",
     [] {
         vesk::SignalQueue::Notifier notifier;
         vesk::SignalQueue queue(notifier);
         vesk::SignalCatcher const catcher(
             SIGURG, queue, [](int, void*) {}, nullptr);
         raise(SIGURG);
         vesk::Message* const message = queue.pop_nonblock();
         if (message == nullptr) {
             return true;
         }
         message->dismiss();
         return false;
     },
     "the signal stays in the queue, as documented"},
    {"Dispatcher", "TTTT",
     [] {
         vesk::Dispatcher::VanillaNotifier notifier;
         vesk::Dispatcher::VanillaQueue queue(notifier);
         vesk::Dispatcher dispatcher(notifier);
         Handler handler;
         dispatcher.add_source(queue);
         dispatcher.add_handler(handler);
         dispatcher.remove_handler(handler);
         return false;
     }},
    {"Message_Callback", "*TF",
     [] {
         using Message = vesk::Message::Callback;
         std::unique_ptr<Message> const message(new Message([](void*) {}, nullptr));
         std::unique_ptr<Message> const other(new (std::nothrow) Message([](void*) {}, nullptr));
         return other == nullptr;
     },
     "the library keeps messages; the other has std::nothrow"},
    {"VanillaQueue_push", "T",
     [] {
         static vesk::Dispatcher::VanillaNotifier s_notifier;
         static vesk::Dispatcher::VanillaQueue s_queue(s_notifier);
         auto message = std::make_unique<vesk::Message>();
         s_queue.push(message.get());
         message.release();
         s_queue.pop_nonblock()->dismiss();
         return false;
     }},
    {"Poller", "TTTTTTT",
     [] {
         vesk::Poller poller;
         Client client;
         poller.add(client, STDERR_FILENO);
         poller.remove(client);
         poller.stop();
         return poller.poll() && false;
     }},
    // ---- text and files ----
    {"Path", "TT", [] { return vesk::Path(LONG) != vesk::Path(g_long); }},
    {"WidePath", "TTWT", [] { return std::string(vesk::WidePath(LONG).getAbsolute()).empty(); }},
    {"Path_getAbsolute", "TTT", [] { return vesk::Path(LONG).getAbsolute() != std::string("//") + LONG; }},
    {"Path_getCanonicalized", "F", [] { return vesk::Path("/dev/../dev/.").getCanonicalized() != "/dev"; },
     "`errno` has the reason, as documented"},
    {"WidePath_getCanonicalized", "TWFT",
     [] { return vesk::WidePath("/dev/../dev/.").getCanonicalized() != L"/dev"; },
     "as `Path::getCanonicalized`"},
    {"getExecutableSuffix", "W",
     [] {
         return !vesk::getExecutableSuffix<std::string>().empty() ||
             !vesk::getExecutableSuffix<std::wstring>().empty();
     }},
    {"PathParts", "TTTT", [] { return vesk::PathParts(g_long + "/" + LONG).name.empty(); }},
    {"FileInfo", "",
     [] { return isBroken(vesk::FileInfo(vesk::UnicodeString(std::string("/dev/null")), true)); }},
    {"FileInfo_getOwner", "*F-",
     [] { return vesk::FileInfo("/dev/null", true).getOwner().getName().empty(); },
     "a lookup without memory finds nothing, as documented"},
    {"FileInfo_setModTime", "", [] { return vesk::FileInfo::setModTime(g_file, 0); }},
    {"FileSys_changeOwnerGroup", "*-",
     [] {
         static std::string const s_user = vesk::User::id2name(getuid());
         static std::string const s_group = vesk::Group::id2name(getgid());
         return vesk::FileSys::changeOwnerGroup(g_file, vesk::User(s_user), vesk::Group(s_group));
     },
     "a lookup without memory finds nothing, and then nothing is changed"},
    {"FileSys_getMountPoints", "*T", [] { return vesk::FileSys::getMountPoints().empty(); }},
    {"FileSys_copy", "WR",
     [] {
         static std::string const s_target = "/tmp/" + getName("copy");
         unlink(s_target.c_str());
         bool const failed = vesk::FileSys::copy(
             vesk::UnicodeString("/proc/self/comm"), vesk::UnicodeString(s_target), 100, nullptr);
         unlink(s_target.c_str());
         return failed;
     }},
    {"FileSys_currentWD", "",
     [] {
         std::string result;
         return vesk::FileSys::currentWD(result);
     }},
    {"FileSys_getEntryPoints", "*T",
     [] {
         std::list<vesk::UnicodeString> result;
         vesk::FileSys::getEntryPoints(result);
         return vesk::FileSys::getEntryPoints().empty() || result.empty();
     }},
    {"Directory", "R", [] { return isBroken(vesk::Directory("/proc/self", true)); }},
    {"Directory_curDir", "RR",
     [] {
         vesk::Directory directory("/proc/self", true);
         if (isBroken(directory)) {
             return true;
         }
         while (!directory.atEnd() && strcmp(directory.curName(), "task") != 0) {
             if (directory.next() == -1) {
                 return true;
             }
         }
         return isBroken(directory.curDir(true, true));
     }},
    {"StreamBinFileR", "R",
     [] {
         vesk::StreamBinFileR file(100);
         return std::ErrorStorage::isError(true) ||
             file.open(std::string("/dev/null"), vesk::BinFileBase::READ);
     }},
    {"StreamBinFileRW", "RR",
     [] {
         vesk::StreamBinFileRW file(100, 100);
         return std::ErrorStorage::isError(true) || file.open("/dev/null", vesk::BinFileBase::READ_WRITE);
     }},
    {"StdStreams", "",
     [] {
         return isBroken(vesk::StdinBinFile(100)) || isBroken(vesk::StdoutBinFile(100)) ||
             isBroken(vesk::StderrBinFile(100));
     }},
    {"SecureRandom", "", [] { return isBroken(vesk::SecureRandom(false)); }},
    {"SerialPort", "RR",
     [] {
         vesk::detail::UniqueFd const terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
         char name[64];
         if (grantpt(terminal.get()) != 0 || unlockpt(terminal.get()) != 0 ||
             ptsname_r(terminal.get(), name, sizeof name) != 0) {
             return true;
         }
         vesk::SerialPort port(name, 9600, vesk::SerialPort::Parity::NONE, 1, false, false, true, 100, 100);
         char byte = 0;
         unsigned int count = 0;
         return std::ErrorStorage::isError(true) || port.open() || write(terminal.get(), "b", 1) != 1 ||
             port.read(&byte, 1, count) != 1;
     }},
    {"MemBinFileBase", "RT",
     [] {
         vesk::MemBinFileBase file;
         return file.open("/proc/self/exe", vesk::BinFileBase::READ, vesk::BinFileBase::DEFAULT_ACCESS) ||
             isBroken(file.addMapping(vesk::MemMapping::READ, 4096)) || file.close();
     }},
    {"BinTempFileRW", "TTTWTW",
     [] { return isBroken(vesk::BinTempFileRW(vesk::WidePath(TEMPORARY.c_str()))); }},
    {"FmtFileWrapper", "R-",
     [] {
         vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, vesk::BinFileBase::ReadFlags> file(
             "/proc/self/stat", vesk::BinFileBase::READ);
         int process = 0;
         return isBroken(file) || !(file >> process) || process != getpid();
     },
     "`close` needs no buffer"},
};

} // namespace operations
