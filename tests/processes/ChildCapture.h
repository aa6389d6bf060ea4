#pragma once

#include "processes/ProcessSupport.h"
#include "support/Child.h"

#include <cstdio>
#include <functional>
#include <string>

/// Runs an object in a process of its own, to see what its children write to the standard error that they inherit.
namespace support {

struct Capture {
    int pid = -1;        ///< What `start` gave.
    bool killed = false; ///< How the child has ended.
    int status = -1;
    std::string output;  ///< All that went to standard output.
    std::string errors;  ///< All that went to standard error.
    std::string program; ///< The path that was started, as the lines tell it.
};

/// Starts the object's child and waits for its end.
using Go = std::function<void()>;

/// `body` sets the object up, which is the probe with `say`, and calls what it is given, once.
inline Capture capture(std::function<void(vesk::ProcessTNG& process, Go const& go)> const& body) {
    Capture result;
    ProcessPipe pipe(ProcessPipe::ChildGets::WRITE_END);
    fcntl(pipe.getWriteEnd(), F_SETFD, FD_CLOEXEC);
    ChildEnd const end = runInChild([&] {
        vesk::ProcessTNG process;
        setProbe(process, {"say", "out\n", "err\n"});
        body(process, [&] {
            int const pid = process.start();
            vesk::ProcessTNG::ExitState state;
            EXPECT_FALSE(process.wait(state, false, 0));
            EXPECT_TRUE(state.hasExited());
            dprintf(pipe.getWriteEnd(), "%d %d %d", pid, state.killed ? 1 : 0, state.status);
        });
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    int killed = 0;
    EXPECT_EQ(3, sscanf(pipe.readAll().c_str(), "%d %d %d", &result.pid, &killed, &result.status));
    result.killed = killed != 0;
    result.output = end.output;
    result.errors = end.errors;
    result.program = getProbePath();
    return result;
}

} // namespace support
