// Fuzzes what a child receives from ProcessTNG. The input begins with the number of arguments; the arguments, and
// the names and values of the environment, follow, each after its length.

#include "Check.h"

#include <vesk/ProcessTNG.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorStorage.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr char const* PROGRAM = "/bin/true";
constexpr size_t MAX_RECEIVED = 1 << 20;

/// What the child has received, in memory that it shares with this process.
struct Received {
    size_t size;
    char text[MAX_RECEIVED];
};

Received* getReceived() {
    static auto* const s_received = static_cast<Received*>(
        mmap(nullptr, sizeof(Received), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return s_received;
}

void note(char const* text, size_t size) {
    Received& received = *getReceived();
    if (size <= MAX_RECEIVED - received.size) {
        memcpy(received.text + received.size, text, size);
        received.size += size;
    }
}

void noteRows(char const* title, char* const* rows) {
    note(title, strlen(title) + 1);
    for (; *rows != nullptr; ++rows) {
        note(*rows, strlen(*rows) + 1);
    }
}

/// Takes texts off the input.
class Input {
public:
    Input(uint8_t const* data, size_t size) : m_rest(reinterpret_cast<char const*>(data), size) {}

    bool isEmpty() const { return m_rest.empty(); }
    size_t takeByte() {
        size_t const byte = m_rest.empty() ? 0 : static_cast<unsigned char>(m_rest[0]);
        m_rest.erase(0, 1);
        return byte;
    }
    std::string takeText() {
        size_t const size = takeByte();
        std::string text = m_rest.substr(0, size);
        m_rest.erase(0, size);
        return text;
    }

private:
    std::string m_rest;
};

/// Reference implementation: a text ends at its first null byte.
std::string cut(std::string const& text) {
    return text.substr(0, text.find('\0')) + '\0';
}

} // namespace

// In the child, instead of the program.
extern "C" int execve(char const* program, char* const* arguments, char* const* environment) noexcept {
    note(program, strlen(program) + 1);
    noteRows("arguments", arguments);
    noteRows("environment", environment);
    _exit(0);
}

extern "C" int execv(char const* program, char* const* arguments) noexcept {
    return execve(program, arguments, environ);
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static vesk::Vesk const s_vesk(true, false);
    Input input(data, size);
    std::vector<std::string> arguments(input.takeByte() % 8);
    std::string expected = cut(PROGRAM) + cut("arguments") + cut(PROGRAM);
    for (std::string& argument : arguments) {
        argument = input.takeText();
        expected += cut(argument);
    }
    expected += cut("environment");
    std::vector<std::pair<std::string, std::string>> variables;
    while (!input.isEmpty()) {
        std::string const name = input.takeText();
        variables.emplace_back(name, input.takeText());
        expected += cut(name + "=" + variables.back().second);
    }
    for (char** row = environ; variables.empty() && *row != nullptr; ++row) {
        expected += cut(*row);
    }

    getReceived()->size = 0;
    vesk::ProcessTNG process(PROGRAM, arguments);
    process.setEnvironment(variables);
    fuzz::check(process.start() != -1, "the child starts");
    vesk::ProcessTNG::ExitState state;
    fuzz::check(!process.wait(state, false, 0), "the child ends");
    fuzz::check(
        std::string(getReceived()->text, getReceived()->size) == expected,
        "the child receives what the reference says");
    fuzz::check(!std::ErrorStorage::isError(true), "nothing is reported");
    return 0;
}
