#include "Tour.h"

#include <vesk/FileSys.h>
#include <vesk/Pipe.h>
#include <vesk/ProcessInfo.h>
#include <vesk/ProcessTNG.h>
#include <vesk/Regex.h>
#include <vesk/SharedObj.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/SystemLoad.h>
#include <vesk/Time.h>

#include <tarncommon/error/ErrorStorage.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace tour {

namespace {

using vesk::ProcessTNG;

bool start(ProcessTNG& process, char const* program, std::vector<std::string> const& arguments) {
    failed(process.setExecutable(program), program);
    process.setArguments(arguments);
    return failed(process.start() == ProcessTNG::INVALID_PROCESS_ID, "starting a child");
}

ProcessTNG::ExitState waitFor(ProcessTNG& process) {
    ProcessTNG::ExitState state;
    failed(process.wait(state, false, 0), "waiting for a child");
    return state;
}

std::string readAll(std::string const& path) {
    vesk::StreamBinFileR file;
    std::string text;
    if (failed(file.open(path, vesk::BinFileBase::READ), "opening the output")) {
        return text;
    }
    std::array<char, 4096> piece;
    unsigned int count = 0;
    while (file.read(piece.data(), piece.size(), count) == 1) {
        text.append(piece.data(), count);
    }
    std::ErrorStorage::ack(); // The end of the file.
    return text;
}

/// A file for the output of a child. The destructor removes it.
class OutputFile {
public:
    OutputFile() : m_path(std::string(vesk::FileSys::getTempPath()) + "/tour-output-XXXXXX") {
        int const fd = mkstemp(m_path.data());
        failed(fd == -1, "making a file for output");
        close(fd);
    }
    ~OutputFile() { failed(vesk::FileSys::removeFile(m_path.c_str()), "removing the output"); }

    std::string const& get() const { return m_path; }

private:
    std::string m_path;
};

/// Returns the file name of a descriptor, through which a child can get it as its standard input.
std::string nameOf(int fd) {
    return "/dev/fd/" + std::to_string(fd);
}

void runPipeline() {
    section("Processes: a pipeline of three children");
    OutputFile const output;
    ProcessTNG numbers;
    ProcessTNG sevens;
    ProcessTNG count;
    vesk::Pipe first;
    numbers.setStdoutFd(first.getWriteEnd());
    bool broken = start(numbers, "/usr/bin/seq", {"1", "200000"});
    // A child inherits every descriptor. The next child must not keep its own input open.
    failed(first.closeWriteEnd(), "closing an end");
    vesk::Pipe second;
    sevens.setStdinFile(nameOf(first.getReadEnd()));
    sevens.setStdoutFd(second.getWriteEnd());
    broken = start(sevens, "/bin/grep", {"7"}) || broken;
    failed(second.closeWriteEnd(), "closing an end");
    failed(first.closeReadEnd(), "closing an end");
    count.setStdinFile(nameOf(second.getReadEnd()));
    count.setStdoutFile(output.get(), false);
    broken = start(count, "/usr/bin/wc", {"-l"}) || broken;
    failed(second.closeReadEnd(), "closing an end");
    if (broken) {
        return;
    }
    for (ProcessTNG* const process : {&numbers, &sevens, &count}) {
        ProcessTNG::ExitState const state = waitFor(*process);
        failed(state.killed || state.status != 0, "a child of the pipeline has succeeded");
    }
    int const lines = atoi(readAll(output.get()).c_str());
    failed(lines != 81902, "81902 of the numbers up to 200000 contain a seven");
    tell("seq 1 200000 | grep 7 | wc -l prints %d", lines);
}

void changeEnvironment() {
    section("Processes: a new environment, a killed group, a missing program");
    OutputFile const output;
    ProcessTNG environment;
    environment.setEnvironment({{"MODE", "tour"}, {"STEPS", "3"}});
    environment.setStdoutFile(output.get(), false);
    if (!start(environment, "/usr/bin/env", {})) {
        waitFor(environment);
    }
    std::string const text = readAll(output.get());
    vesk::Regex pattern;
    std::array<vesk::Regex::SubMatch, 2> found;
    failed(pattern.compile("^MODE=(.*)\nSTEPS", vesk::Regex::SUB_MATCHES) != 0, "compiling an expression");
    failed(pattern.match(text.c_str(), found.data(), found.size()) != 0, "the output matches");
    tell(
        "the child's whole environment is %zu bytes; a regular expression finds the mode \"%s\" in it",
        text.size(), std::string(found[1].in(text.c_str())).c_str());
    failed(found[1].in(text.c_str()) != "tour", "the mode is found");

    ProcessTNG group;
    group.setNewGroup(true);
    if (!start(group, "/bin/sh", {"-c", "sleep 100 & sleep 100"})) {
        static_cast<void>(vesk::Time::sleep(50)); // Lets the shell start its children.
        failed(group.kill(true), "killing the group");
        ProcessTNG::ExitState const state = waitFor(group);
        failed(!state.killed || state.status != SIGTERM, "the group ended by SIGTERM");
        tell("a shell and its children were ended as a group, by signal %d", state.status);
    }

    ProcessTNG missing;
    static_cast<void>(missing.setExecutable("/usr/bin/no-such-program"));
    // `setExecutable` reports the failure at once. A child that is started all the same ends early.
    std::ErrorStorage::ack();
    missing.setStderrNull(true);
    int const pid = missing.start();
    ProcessTNG::ExitState const state = waitFor(missing);
    failed(
        pid == ProcessTNG::INVALID_PROCESS_ID || !state.killed || state.status != SIGABRT,
        "the child ends early");
    tell("a child without a program ended by signal %d", state.status);
}

void measureLoad() {
    section("Processes: the load of a busy process, a shared object");
    ProcessTNG busy;
    vesk::SystemLoad system_start;
    failed(system_start.sample(), "sampling the system's load");
    if (start(busy, "/bin/sh", {"-c", "while :; do :; done"})) {
        return;
    }
    vesk::ProcessInfo before(busy.getPid());
    before.init();
    static_cast<void>(vesk::Time::sleep(300));
    vesk::ProcessInfo after(busy.getPid());
    after.init();
    vesk::SystemLoad system_end;
    failed(system_end.sample(), "sampling the system's load");
    double const load = vesk::ProcessInfo::getCpuLoad(before, after);
    tell(
        "\"%s\" with %zu thread uses %.0f%% of this machine; its total load is %.0f%%", after.name.c_str(),
        after.threads, load, vesk::SystemLoad::getCpuLoad(system_start, system_end));
    failed(load <= 0 || busy.kill(false), "measuring a load and killing its process");
    ProcessTNG::ExitState const state = waitFor(busy);
    failed(!state.killed || state.status != SIGKILL, "the busy child was killed");

    vesk::SharedObj library;
    void* function = nullptr;
    if (!failed(library.load("libm.so.6") || library.resolve("cbrt", function), "loading a library")) {
        tell(
            "cbrt(27) of the mathematical library is %.1f",
            reinterpret_cast<double (*)(double)>(function)(27));
    }
}

} // namespace

void processes() {
    runPipeline();
    changeEnvironment();
    measureLoad();
}

} // namespace tour
