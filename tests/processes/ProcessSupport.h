#pragma once

#include "ProbeCommand.h"
#include "support/Emulation.h"
#include "support/Sleeper.h"
#include "support/TempFolder.h"
#include "threads/ThreadSupport.h"

#include <vesk/ProcessTNG.h>
#include <vesk/Vesk.h>

/// Support for the tests of child processes.
namespace support {

using vesk::ProcessTNG;
using ExitState = ProcessTNG::ExitState;

#if defined(__SANITIZE_THREAD__)
constexpr int SLOWDOWN = 20;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int SLOWDOWN = 10;
#else
inline int const SLOWDOWN = IS_SLOW ? 50 : 1;
#endif

/// What a process without a collector, or without the means to find its own name, reports.
constexpr char const* NO_IMPL = "Unable to initialize VESK: \"process impl. object is invalid\" failed";
constexpr char const* NO_STATIC_IMPL =
    "Unable to initialize VESK: \"process static impl. object is invalid\" failed";
constexpr char const* NO_START = "ASSERT framework/src/vesk/posix/ProcessTNG start: g_process_impl";

/// Returns the path of the probe's command line: of the probe itself or of the program that runs it.
inline std::string getProbePath() {
    return PROBE_COMMAND[0];
}

/// Returns the arguments of the probe's command line, behind those of the program that runs it.
inline std::vector<std::string> getProbeArguments(std::vector<std::string> const& arguments) {
    std::vector<std::string> all(std::begin(PROBE_COMMAND) + 1, std::end(PROBE_COMMAND));
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

/// Makes the probe the next child of an object.
inline void setProbe(ProcessTNG& process, std::vector<std::string> const& arguments) {
    EXPECT_FALSE(process.setExecutable(getProbePath()));
    process.setArguments(getProbeArguments(arguments));
}

inline testing::AssertionResult contains(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos ? testing::AssertionSuccess()
                                                : testing::AssertionFailure() << part << " not in " << text;
}

/// A pipe. Children inherit only the given end.
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

    /// Reads until all copies of the write end are closed.
    std::string readAll() {
        closeWriteEnd();
        std::string text;
        char buffer[4096];
        ssize_t count = 0;
        while ((count = TEMP_FAILURE_RETRY(read(getReadEnd(), buffer, sizeof buffer))) > 0) {
            text.append(buffer, static_cast<size_t>(count));
        }
        return text;
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

/// Holds children until it releases them.
class HeldProbe {
public:
    /// Makes the probe the next child of an object; `mode` is one of those that hold.
    void set(ProcessTNG& process, char const* mode = "hold") {
        setProbe(
            process, {mode, std::to_string(m_begun.getWriteEnd()), std::to_string(m_released.getReadEnd())});
    }

    /// Waits until this number of probes have begun. No further one can begin afterwards.
    void waitUntilBegun(int probes = 1) {
        for (int i = 0; i < probes; ++i) {
            char byte = 0;
            EXPECT_EQ(1, read(m_begun.getReadEnd(), &byte, 1));
        }
    }

    /// Lets the children end with exit code 0.
    void release() { m_released.closeWriteEnd(); }

    /// Waits until every probe has ended.
    void waitUntilGone() { EXPECT_EQ("", m_begun.readAll()); }

private:
    ProcessPipe m_begun{ProcessPipe::ChildGets::WRITE_END};
    ProcessPipe m_released{ProcessPipe::ChildGets::READ_END};
};

inline testing::AssertionResult endedWith(ExitState const& state, bool killed, int status) {
    return (state.hasExited() && state.killed == killed && state.status == status
                ? testing::AssertionSuccess()
                : testing::AssertionFailure())
        << "exited " << state.exited << " killed " << state.killed << " status " << state.status;
}
inline testing::AssertionResult hasExitedWith(ExitState const& state, int code) {
    return endedWith(state, false, code);
}
inline testing::AssertionResult wasKilledBy(ExitState const& state, int signal) {
    return endedWith(state, true, signal);
}

/// Waits for the end of an object's child.
inline ExitState waitFor(ProcessTNG& process) {
    ExitState state;
    EXPECT_FALSE(process.wait(state, false, 0));
    return state;
}

/// Starts an object's child and waits for its end.
inline ExitState run(ProcessTNG& process) {
    EXPECT_GT(process.start(), 0);
    return waitFor(process);
}

/// Makes the probe that exits with `code` the next child of an object.
inline void setExit(ProcessTNG& process, int code) {
    setProbe(process, {"exit", std::to_string(code)});
}

/// Checks that an object runs a child that exits with `code`.
inline testing::AssertionResult runsExit(ProcessTNG& process, int code) {
    setExit(process, code);
    return hasExitedWith(run(process), code);
}

/// Checks that a wait fails because an object has neither a child nor an exit state, and keeps its argument.
inline testing::AssertionResult hasNoState(ProcessTNG& process, bool timed = false) {
    ExitState state;
    state.status = 77;
    if (!process.wait(state, timed, 1000) || state.status != 77) {
        return testing::AssertionFailure() << "status " << state.status;
    }
    return chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN,
          "Contract broken by the caller: no child process running, no child exit states left"}});
}

/// An object with a held child that has begun. The destructor releases a running child and waits for its end.
class HeldChild : public HeldProbe {
public:
    explicit HeldChild(char const* mode = "hold", int probes = 1, bool new_group = false) {
        set(process, mode);
        process.setNewGroup(new_group);
        pid = process.start();
        EXPECT_GT(pid, 0);
        waitUntilBegun(probes);
    }
    ~HeldChild() {
        release();
        if (process.getPid() != ProcessTNG::INVALID_PROCESS_ID) {
            waitFor(process);
        }
    }
    /// Releases the child. Checks that it ends.
    testing::AssertionResult ends() {
        release();
        return hasExitedWith(waitFor(process), 0);
    }

    ProcessTNG process;
    int pid = -1;
};

/// The output of the probe in the mode "tell".
class Sight {
public:
    explicit Sight(std::string const& path) {
        std::istringstream text(contentOf(path));
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

    /// Returns the environment. An emulator passes it on in another order.
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

    /// Returns a value that exists once, or -9999.
    int getNumber(std::string const& key) { return get(key).size() == 1 ? atoi(get(key)[0].c_str()) : -9999; }

private:
    std::map<std::string, std::vector<std::string>> m_values;
};

/// Starts the probe with the settings of an object. Returns its output.
inline Sight look(ProcessTNG& process, std::vector<std::string> const& arguments = {}) {
    TempFolder const dir;
    std::vector<std::string> all = {"tell", dir / "sight"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    setProbe(process, all);
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    return Sight(dir / "sight");
}

/// Returns the kernel's ids of the collectors of the process.
inline std::vector<pid_t> getCollectors() {
    std::vector<pid_t> collectors;
    std::error_code error;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task", error)) {
        if (contentOf(entry.path() / "comm") == "rocessCollector\n") {
            collectors.push_back(std::stoi(entry.path().filename()));
        }
    }
    return collectors;
}

inline size_t countCollectors() {
    return getCollectors().size();
}

/// Waits until the process has no collector. The system may still show one shortly after it was joined.
inline bool haveCollectorsGone() {
    return eventually([] { return countCollectors() == 0; });
}

/// Returns the id of the collector, or 0 until it has its name.
inline pid_t findCollector() {
    std::vector<pid_t> const collectors = getCollectors();
    return collectors.size() == 1 ? collectors[0] : 0;
}

/// Waits until the collector sleeps.
inline void waitForCollector() {
    pid_t collector = 0;
    EXPECT_TRUE(eventually([&] { return (collector = findCollector()) != 0; }));
    waitUntilAsleep(getpid(), collector);
}

/// Records the ends of children. Runs a body, if any, at each of them.
class RecordingListener : public ProcessTNG::ExitListener {
public:
    explicit RecordingListener(std::function<void(ExitState const&)> body = nullptr)
        : m_body(std::move(body)) {}

    void processExited(ExitState const* state) override {
        last = *state;
        if (m_body) {
            m_body(*state);
        }
        ++calls; // Last: tests wait for it as the end of the call.
    }
    /// Starts a child with this listener that exits with `code`. Returns its id.
    int start(ProcessTNG& process, int code) {
        process.setExitListener(this);
        setExit(process, code);
        int const pid = process.start();
        EXPECT_GT(pid, 0);
        return pid;
    }
    bool waitForCalls(int count = 1) const {
        return eventually([this, count] { return calls >= count; });
    }

    ExitState last;
    std::atomic<int> calls{0};

private:
    std::function<void(ExitState const&)> m_body;
};

/// Runs the library for each test, as in every process that starts children. Ends the collector after each
/// test, so that the next one can fork.
class ProcessTest : public testing::Test {
protected:
    void TearDown() override { restart(); }

    static void restart() {
        ProcessTNG::exit();
        EXPECT_FALSE(ProcessTNG::init(true));
    }

    vesk::Vesk const m_vesk{true, false};
};

} // namespace support
