#include "ProcessEndCommand.h"
#include "Uses.h"
#include "support/Emulation.h"
#include "support/Testing.h"

#include <sstream>

namespace {

// Of each way there are four batches, so that none takes long on a loaded machine.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int PROCESSES = 5;
#else
int const PROCESSES = support::IS_EMULATED ? 2 : support::IS_SLOW ? 10 : 50;
#endif

/// How the process ends, and the number of the batch.
using Row = std::tuple<char const*, int>;

class ProcessEnd : public testing::TestWithParam<Row> {
protected:
    void SetUp() override { uses::setUp(m_prefix.c_str()); }
    void TearDown() override { uses::removeNames(); }

    support::ChildEnd run() const {
        std::vector<char*> arguments;
        for (char const* const part : PROGRAM_COMMAND) {
            arguments.push_back(const_cast<char*>(part));
        }
        arguments.push_back(const_cast<char*>(std::get<0>(GetParam())));
        arguments.push_back(const_cast<char*>(m_prefix.c_str()));
        arguments.push_back(nullptr);
        return support::runInChild([&arguments] {
            execv(arguments[0], arguments.data());
            FAIL() << "cannot execute " << arguments[0];
        });
    }

    std::string const m_prefix = "vesk-process-end-" + std::to_string(getpid()) + "-";
};

INSTANTIATE_TEST_SUITE_P(
    All, ProcessEnd,
    testing::Combine(
        testing::Values("return", "exit", "quick_exit", "timer", "catcher"), testing::Range(0, 4)),
    [](auto const& row) { return std::get<0>(row.param) + std::to_string(std::get<1>(row.param)); });

/// Returns the lines of a text without those that the C library causes: `exit` counts the users of each shared object
/// without a lock, so that a `dlclose` at the same time may find the object closed.
std::string withoutUnloading(std::string const& text) {
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(": warning: Error unloading shared library object @") == std::string::npos) {
            result += line + '\n';
        }
    }
    return result;
}

TEST_P(ProcessEnd, doesNotDisturbThreadsThatUseTheLibraries) {
    for (int i = 0; i < PROCESSES; ++i) {
        support::ChildEnd const end = run();
        ASSERT_EQ(0, end.exit_code) << "process " << i << ", signal " << end.signal << "\n" << end.errors;
        ASSERT_EQ("ending", end.output);
        ASSERT_EQ("", withoutUnloading(end.errors));
    }
}

} // namespace
