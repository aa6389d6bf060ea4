#pragma once

#include "support/Inject.h"
#include "support/TempFolder.h"

#include <vesk/ProcessInfo.h>

#include <cstring>
#include <vector>

/// Replaces `open`. Must be included in only one file of a test program. A `support::Fault` on `inject_open` counts its
/// calls and makes them fail; a `FakeProc` redirects them from /proc to its own files.

namespace support {

/// One call of `open`.
struct OpenCall {
    std::string path;
    int flags;
};

/// Redirects `open` from /proc to a folder that the test fills. Only one can exist at a time.
class FakeProc {
public:
    FakeProc() { s_current = this; }
    ~FakeProc() { s_current = nullptr; }

    FakeProc(FakeProc const&) = delete;
    FakeProc& operator=(FakeProc const&) = delete;

    /// Writes a file. Its name is relative to /proc, such as "42/stat".
    void set(std::string const& name, std::string const& text) const {
        std::filesystem::create_directories(std::filesystem::path(m_folder / name).parent_path());
        m_folder.makeFile(name, text);
    }

    /// Writes the two files of a process. The values of `stat` and `statm` that are not used all differ.
    void setProcess(
        int pid, std::string const& name, std::string const& user_ticks, std::string const& system_ticks,
        std::string const& threads, std::string const& pages) const {
        std::string const folder = std::to_string(pid);
        set(folder + "/stat",
            folder + " (" + name + ") S 1 2 3 4 -5 6 7 8 9 10 " + user_ticks + " " + system_ticks +
                " 11 12 -13 -14 " + threads + " 15 16 17 18 19\n");
        set(folder + "/statm", "901 " + pages + " 902 903 904 905 906\n");
    }

    /// Returns the calls of `open` so far for files below /proc.
    std::vector<OpenCall> const& getOpened() const { return m_opened; }

    /// Returns the path to open instead of this one.
    static char const* resolve(char const* path, int flags) {
        if (s_current == nullptr || strncmp(path, "/proc", 5) != 0) {
            return path;
        }
        s_current->m_opened.push_back({path, flags});
        s_current->m_path = s_current->m_folder.getPath() + (path + 5);
        return s_current->m_path.c_str();
    }

private:
    static inline FakeProc* s_current = nullptr;

    TempFolder m_folder;
    std::vector<OpenCall> m_opened;
    std::string m_path; // Of the last call.
};

constexpr int PID = 4711;

/// A /proc with the process `PID`.
class FakeDaemon : public FakeProc {
public:
    FakeDaemon() { setProcess(PID, "daemon", "300", "250", "17", "33"); }
};

inline vesk::ProcessInfo takeSnapshot(int pid = PID) {
    vesk::ProcessInfo info(pid);
    info.init();
    return info;
}

} // namespace support

VESK_INJECT_OPEN(path = support::FakeProc::resolve(path, flags))
