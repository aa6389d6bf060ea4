// Fuzzes the formatter of reports. The input is the format of a row up to a null byte, then the arguments: a
// byte that selects the kind, and eight bytes for a number, or a text up to a null byte.

#include "Check.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr size_t MAX_ARGUMENTS = 4;
constexpr size_t LIMIT = std::ErrorObject::TEXT_SIZE - 1;

/// Takes values off the input.
class Input {
public:
    Input(uint8_t const* data, size_t size) : m_rest(reinterpret_cast<char const*>(data), size) {}

    bool isEmpty() const { return m_rest.empty(); }
    std::string takeText() {
        std::string text = m_rest.substr(0, m_rest.find('\0'));
        m_rest.erase(0, text.size() + 1);
        return text;
    }
    template <typename T>
    T take() {
        T value{};
        memcpy(&value, m_rest.data(), std::min(sizeof value, m_rest.size()));
        m_rest.erase(0, sizeof value);
        return value;
    }

private:
    std::string m_rest;
};

/// The arguments of a report with their expected texts.
struct Arguments {
    explicit Arguments(Input& input) {
        texts.reserve(MAX_ARGUMENTS); // The arguments refer to the texts.
        while (!input.isEmpty() && list.size() < MAX_ARGUMENTS) {
            add(input.take<uint8_t>() % 7, input);
        }
    }

    std::vector<std::string> texts;
    std::vector<std::ErrorArgument> list;

private:
    template <typename T>
    void addNumber(T value) {
        texts.push_back(std::to_string(value));
        list.emplace_back(value);
    }
    void add(uint8_t kind, Input& input) {
        switch (kind) {
        case 0:
            texts.push_back(input.takeText());
            list.emplace_back(texts.back());
            break;
        case 1:
            texts.emplace_back("(null)");
            list.emplace_back(static_cast<char const*>(nullptr));
            break;
        case 2:
            addNumber(input.take<long long>());
            break;
        case 3:
            addNumber(input.take<unsigned long long>());
            break;
        case 4:
            addNumber(input.take<short>());
            break;
        case 5:
            addNumber(input.take<unsigned int>());
            break;
        default:
            addAddress(input.take<uintptr_t>());
            break;
        }
    }
    void addAddress(uintptr_t address) {
        std::ostringstream text;
        text << "0x" << std::hex << address;
        texts.push_back(text.str());
        list.emplace_back(reinterpret_cast<void const*>(address));
    }
};

/// Reference implementation. Every conversion is a "%" and one character.
std::string format(std::string const& row, std::vector<std::string> const& arguments) {
    std::string text;
    size_t next = 0;
    for (size_t i = 0; i < row.size(); ++i) {
        if (row[i] != '%') {
            text += row[i];
        } else if (++i < row.size()) {
            bool const is_percent = row[i] == '%';
            text += is_percent ? "%" : next < arguments.size() ? arguments[next] : "?";
            next += is_percent ? 0 : 1;
        }
    }
    return text.size() <= LIMIT ? text : text.substr(0, LIMIT - 3) + "...";
}

void report(std::ErrorType const& type, std::vector<std::ErrorArgument> const& list) {
    std::ErrorOutput const output("fuzz/Report", 1, true);
    switch (list.size()) {
    case 0:
        return output(type, 0);
    case 1:
        return output(type, 0, list[0]);
    case 2:
        return output(type, 0, list[0], list[1]);
    case 3:
        return output(type, 0, list[0], list[1], list[2]);
    default:
        return output(type, 0, list[0], list[1], list[2], list[3]);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    Input input(data, size);
    std::string const row = input.takeText();
    Arguments const arguments(input);
    std::ErrorID const rows[] = {{0, row.c_str(), static_cast<int32_t>(MAX_ARGUMENTS)}};
    std::ErrorType const type(rows, 1);

    report(type, arguments.list);
    std::string const expected = format(row, arguments.texts);
    fuzz::check(std::ErrorStorage::get()->getText() == expected, "the text is that of the reference");
    fuzz::check(
        tarn_error.getReasonList().find(expected) != std::string::npos, "the text of the chain contains it");
    std::ErrorStorage::ack();
    // The family ends here, and a discarded chain is not looked at.
    std::ErrorOutput("fuzz/Report", 1, true)(type, 1);
    fuzz::check(
        std::string(std::ErrorStorage::get()->getText()) == "unknown error 1", "another id is unknown");
    std::ErrorStorage::ack();
    return 0;
}
