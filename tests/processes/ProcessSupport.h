#pragma once

#include "ProbeCommand.h"
#include "threads/ThreadSupport.h"

#include <vesk/ProcessTNG.h>
#include <vesk/Vesk.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

/// What the tests of child processes have in common.
namespace support {

#if defined(__SANITIZE_THREAD__)
constexpr int SLOWDOWN = 20;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int SLOWDOWN = 10;
#else
constexpr int SLOWDOWN = IS_EMULATED ? 50 : 1;
#endif

/// The path of the probe's command line: of the probe itself or of what runs it.
inline std::string getProbePath() {
    return PROBE_COMMAND[0];
}

/// The arguments of the probe's command line, whatever runs it.
inline std::vector<std::string> getProbeArguments(std::vector<std::string> const& arguments) {
    std::vector<std::string> all(std::begin(PROBE_COMMAND) + 1, std::end(PROBE_COMMAND));
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

/// Makes the probe the next child of an object.
inline void setProbe(vesk::ProcessTNG& process, std::vector<std::string> const& arguments) {
    EXPECT_FALSE(process.setExecutable(getProbePath()));
    process.setArguments(getProbeArguments(arguments));
}

inline std::string readFile(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void writeFile(std::string const& path, std::string const& text) {
    std::ofstream(path, std::ios::binary) << text;
}

/// A directory of the test's own, gone with it.
class TempDir {
public:
    explicit TempDir(std::string const& parent = "/tmp") : m_path(parent + "/vesk-process-XXXXXX") {
        if (mkdtemp(m_path.data()) == nullptr) {
            abort();
        }
    }
    ~TempDir() {
        if (DIR* const directory = opendir(m_path.c_str())) {
            while (dirent const* const entry = readdir(directory)) {
                unlinkat(dirfd(directory), entry->d_name, 0);
            }
            closedir(directory);
        }
        rmdir(m_path.c_str());
    }
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    std::string operator/(std::string const& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

/// A pipe whose near end, as seen from the test, no child inherits.
class ProcessPipe {
public:
    enum class ChildGets { READ_END, WRITE_END };

    explicit ProcessPipe(ChildGets end) {
        if (pipe2(m_ends, O_CLOEXEC) != 0) {
            abort();
        }
        fcntl(m_ends[end == ChildGets::READ_END ? 0 : 1], F_SETFD, 0);
    }
    ~ProcessPipe() {
        closeReadEnd();
        closeWriteEnd();
    }
    ProcessPipe(ProcessPipe const&) = delete;
    ProcessPipe& operator=(ProcessPipe const&) = delete;

    int getReadEnd() const noexcept { return m_ends[0]; }
    int getWriteEnd() const noexcept { return m_ends[1]; }
    void closeReadEnd() noexcept { close(m_ends[0]); }
    void closeWriteEnd() noexcept { close(m_ends[1]); }

    /// All that comes until nobody has the write end any more.
    std::string readAll() {
        closeWriteEnd();
        std::string text;
        char buffer[4096];
        for (;;) {
            ssize_t const count = read(getReadEnd(), buffer, sizeof buffer);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                return text;
            }
            text.append(buffer, static_cast<size_t>(count));
        }
    }

private:
    void close(int& fd) noexcept {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }

    int m_ends[2];
};

/// A child that runs until it is released, and says when it has begun.
class HeldProbe {
public:
    /// Makes the probe the next child of an object; `mode` is one of those that hold.
    void set(vesk::ProcessTNG& process, char const* mode = "hold") {
        setProbe(
            process, {mode, std::to_string(m_begun.getWriteEnd()), std::to_string(m_released.getReadEnd())});
    }

    /// Waits until so many probes have begun. After it no further one can.
    void waitUntilBegun(int probes = 1) {
        for (int i = 0; i < probes; ++i) {
            char byte = 0;
            EXPECT_EQ(1, read(m_begun.getReadEnd(), &byte, 1));
        }
    }

    /// Lets the child end with exit code 0.
    void release() { m_released.closeWriteEnd(); }

    /// Waits until every probe is gone, whoever had started it.
    void waitUntilGone() { EXPECT_EQ("", m_begun.readAll()); }

private:
    ProcessPipe m_begun{ProcessPipe::ChildGets::WRITE_END};
    ProcessPipe m_released{ProcessPipe::ChildGets::READ_END};
};

/// Waits for the end of an object's child.
inline vesk::ProcessTNG::ExitState waitFor(vesk::ProcessTNG& process) {
    vesk::ProcessTNG::ExitState state;
    EXPECT_FALSE(process.wait(state, false, 0));
    return state;
}

/// Starts an object's child and waits for its end.
inline vesk::ProcessTNG::ExitState run(vesk::ProcessTNG& process) {
    EXPECT_GT(process.start(), 0);
    return waitFor(process);
}

inline testing::AssertionResult hasExitedWith(vesk::ProcessTNG::ExitState const& state, int code) {
    if (state.hasExited() && !state.killed && state.status == code) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
        << "exited " << state.exited << " killed " << state.killed << " status " << state.status;
}

inline testing::AssertionResult wasKilledBy(vesk::ProcessTNG::ExitState const& state, int signal) {
    if (state.hasExited() && state.killed && state.status == signal) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
        << "exited " << state.exited << " killed " << state.killed << " status " << state.status;
}

/// What the probe has told of itself in the mode "tell".
class Sight {
public:
    explicit Sight(std::string const& path) {
        std::istringstream text(readFile(path));
        std::string key;
        size_t length = 0;
        while (text >> key >> length) {
            std::string value(length, '\0');
            text.get();
            text.read(value.data(), static_cast<std::streamsize>(length));
            m_values[key].push_back(value);
        }
    }

    std::vector<std::string> const& get(std::string const& key) { return m_values[key]; }

    /// The environment. An emulator hands it on in an order of its own.
    std::vector<std::string> getEnvironment() {
        std::vector<std::string> rows = get("env");
        if (IS_EMULATED) {
            std::sort(rows.begin(), rows.end());
        }
        return rows;
    }

    bool has(std::string const& key, std::string const& value) {
        std::vector<std::string> const& values = get(key);
        return std::find(values.begin(), values.end(), value) != values.end();
    }

    /// Of the things that there is but one of. -9999 if it is missing.
    int getNumber(std::string const& key) { return get(key).size() == 1 ? atoi(get(key)[0].c_str()) : -9999; }

private:
    std::map<std::string, std::vector<std::string>> m_values;
};

/// Starts the probe with what an object is set to, and gives what it saw.
inline Sight look(vesk::ProcessTNG& process, std::vector<std::string> const& arguments = {}) {
    TempDir const dir;
    std::vector<std::string> all = {"tell", dir / "sight"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    setProbe(process, all);
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    return Sight(dir / "sight");
}

/// Where a descriptor of a process leads to.
inline std::string readLink(std::string const& path) {
    char target[256] = "";
    ssize_t const length = readlink(path.c_str(), target, sizeof target - 1);
    return std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
}

/// The kernel's ids of the process's collectors.
inline std::vector<pid_t> getCollectors() {
    std::vector<pid_t> collectors;
    if (DIR* const directory = opendir("/proc/self/task")) {
        while (dirent const* const entry = readdir(directory)) {
            if (entry->d_name[0] != '.' &&
                readFile(std::string("/proc/self/task/") + entry->d_name + "/comm") == "rocessCollector\n") {
                collectors.push_back(atoi(entry->d_name));
            }
        }
        closedir(directory);
    }
    return collectors;
}

inline size_t countCollectors() {
    return getCollectors().size();
}

/// Waits until there is none: one that was joined may be seen for another moment.
inline bool haveCollectorsGone() {
    return eventually([] { return countCollectors() == 0; });
}

/// 0 until it has its name.
inline pid_t findCollector() {
    std::vector<pid_t> const collectors = getCollectors();
    return collectors.size() == 1 ? collectors[0] : 0;
}

/// Tells of a child's end what the listener was told.
class RecordingListener : public vesk::ProcessTNG::ExitListener {
public:
    void processExited(vesk::ProcessTNG::ExitState const* state) override {
        last = *state;
        ++calls;
    }
    bool waitForCalls(int count) const {
        return eventually([this, count] { return calls.load() >= count; });
    }

    vesk::ProcessTNG::ExitState last;
    std::atomic<int> calls{0};
};

/// The library is running, as it does in every process that starts children. At the end of the test its collector is
/// gone, so that the next one can fork.
class ProcessTest : public testing::Test {
protected:
    void TearDown() override {
        vesk::ProcessTNG::exit();
        EXPECT_FALSE(vesk::ProcessTNG::init(true));
    }

    vesk::Vesk const m_vesk{true, false};
};

} // namespace support
