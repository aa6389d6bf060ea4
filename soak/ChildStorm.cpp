#include "Storm.h"

#include <vesk/ProcessTNG.h>

#include <csignal>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace soak {

namespace {

using vesk::ProcessTNG;

/// A pipe with ends that no child inherits, unlike those of `vesk::Pipe`.
struct Pipe {
    Pipe() {
        if (pipe2(ends, O_CLOEXEC) != 0) {
            fault("no pipe");
        }
    }
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(int index) {
        if (ends[index] != -1) {
            close(ends[index]);
            ends[index] = -1;
        }
    }

    int ends[2] = {-1, -1}; ///< For reading, for writing.
};

/// Children with redirected streams: they exit, are killed, or cannot be executed.
class ChildStorm : public Storm {
public:
    ChildStorm() : Storm("children") {}

    void work() override {
        exitWithOutput();
        waitInVain();
        missTheProgram();
    }

private:
    ProcessTNG::ExitState waitFor(ProcessTNG& process) {
        ProcessTNG::ExitState state;
        check(process.wait(state, false, 0), "waiting");
        return state;
    }

    /// The child copies its input to its output and returns a code.
    void exitWithOutput() {
        unsigned int const code = random(200);
        std::string const text = "number " + std::to_string(random(1000000));
        Pipe input;
        Pipe output;
        ProcessTNG process("/bin/sh", {"-c", "cat; exit " + std::to_string(code)});
        process.setStdinFile("/dev/fd/" + std::to_string(input.ends[0]));
        process.setStdoutFd(output.ends[1]);
        process.setStderrNull(oneIn(2));
        process.setNewGroup(oneIn(2));
        if (check(process.start() == ProcessTNG::INVALID_PROCESS_ID, "starting")) {
            return;
        }
        check(write(input.ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size()), "writing");
        input.closeEnd(1);
        output.closeEnd(1);
        std::string answer;
        char piece[64];
        ssize_t size = 0;
        while ((size = read(output.ends[0], piece, sizeof piece)) > 0) {
            answer.append(piece, static_cast<size_t>(size));
        }
        check(answer != text, "the output of a child");
        ProcessTNG::ExitState const state = waitFor(process);
        check(state.killed || state.status != static_cast<int>(code), "the exit code of a child");
    }

    /// The wait times out; then a signal ends the child.
    void waitInVain() {
        ProcessTNG process("/bin/sh", {"-c", "exec sleep 100"});
        if (check(process.start() == ProcessTNG::INVALID_PROCESS_ID, "starting")) {
            return;
        }
        ProcessTNG::ExitState state;
        check(process.wait(state, true, random(5)) || state.hasExited(), "a timed wait");
        bool const graceful = oneIn(2);
        check(process.kill(graceful), "killing");
        countProvoked();
        state = waitFor(process);
        check(
            !state.killed || state.status != (graceful ? SIGTERM : SIGKILL), "the signal that ended a child");
    }

    void missTheProgram() {
        ProcessTNG process("/no/such/program", {});
        process.setStderrNull(true);
        process.start();
        countProvoked();
        if (process.getPid() != ProcessTNG::INVALID_PROCESS_ID) {
            check(!waitFor(process).killed, "a child without a program ends itself");
        }
    }
};

} // namespace

std::unique_ptr<Storm> makeChildStorm() {
    return std::make_unique<ChildStorm>();
}

} // namespace soak
