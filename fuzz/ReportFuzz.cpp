// Fuzzes the formatter of reports. The input is a byte that selects a family, then the id of a row in it, or for
// family 0 the format of a row up to a null byte, then the arguments: a byte that selects the kind, and eight bytes
// for a number, or a text up to a null byte.

#include "Check.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/stream/IBinStreamBase.h>
#include <vesk/CalendarTime.h>
#include <vesk/Condition.h>
#include <vesk/FileAccessError.h>
#include <vesk/Mutex.h>
#include <vesk/ProcessTNG.h>
#include <vesk/RWLock.h>
#include <vesk/Regex.h>
#include <vesk/SharedObj.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/ShmRWLock.h>
#include <vesk/ShmSpinLock.h>
#include <vesk/Socket.h>
#include <vesk/SpinLock.h>
#include <vesk/SysError.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/Timer.h>
#include <vesk/Vesk.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr size_t MAX_ARGUMENTS = 4;
constexpr size_t LIMIT = std::ErrorObject::TEXT_SIZE - 1;

/// All families of the two libraries.
std::ErrorType const* const FAMILIES[] = {
    &std::CommonError,
    &std::IBinStreamBase::StreamError,
    &vesk::SysError,
    &vesk::FileAccessError,
    &vesk::OpenError,
    &vesk::CalendarTime::Error,
    &vesk::Condition::Error,
    &vesk::Mutex::Error,
    &vesk::ProcessTNG::Error,
    &vesk::RWLock::Error,
    &vesk::Regex::Error,
    &vesk::SharedObj::Error,
    &vesk::ShmCondition::Error,
    &vesk::ShmMutex::Error,
    &vesk::ShmRWLock::Error,
    &vesk::ShmSpinLock::Error,
    &vesk::Socket::Error,
    &vesk::SpinLock::Error,
    &vesk::Thread::Error,
    &vesk::Time::Error,
    &vesk::Timer::Error,
    &vesk::Vesk::Error,
};

enum class Unsigned : unsigned short {};
enum class Signed : signed char {};

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
            add(input.take<uint8_t>() % 16, input);
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
    template <typename T>
    static void takeNumber(Arguments& self, Input& input) {
        self.addNumber(input.take<T>());
    }
    template <typename T>
    static void takeEnumerator(Arguments& self, Input& input) {
        self.addEnumerator(input.take<T>());
    }
    static void takeString(Arguments& self, Input& input) {
        self.texts.push_back(input.takeText());
        self.list.emplace_back(self.texts.back());
    }
    static void takeText(Arguments& self, Input& input) {
        self.texts.push_back(input.takeText());
        self.list.emplace_back(self.texts.back().c_str());
    }
    static void addNull(Arguments& self, Input& /*input*/) {
        self.texts.emplace_back("(null)");
        self.list.emplace_back(static_cast<char const*>(nullptr));
    }
    static void takeBool(Arguments& self, Input& input) { self.addNumber(input.take<uint8_t>() != 0); }
    static void takeAddress(Arguments& self, Input& input) { self.addAddress(input.take<uintptr_t>()); }
    void add(uint8_t kind, Input& input) {
        // In the order of the bytes of the corpus.
        static constexpr void (*KINDS[])(Arguments&, Input&) = {
            takeString,
            addNull,
            takeNumber<long long>,
            takeNumber<unsigned long long>,
            takeNumber<short>,
            takeNumber<unsigned int>,
            takeAddress,
            takeNumber<signed char>,
            takeBool,
            takeNumber<unsigned long>,
            takeNumber<int>,
            takeEnumerator<Unsigned>,
            takeEnumerator<Signed>,
            takeText,
            takeNumber<char>,
            takeNumber<unsigned short>,
        };
        KINDS[kind < std::size(KINDS) ? kind : 6](*this, input);
    }
    template <typename T>
    void addEnumerator(T value) {
        texts.push_back(std::to_string(static_cast<std::underlying_type_t<T>>(value)));
        list.emplace_back(value);
    }
    void addAddress(uintptr_t address) {
        std::ostringstream text;
        text << "0x" << std::hex << address;
        texts.push_back(text.str());
        list.emplace_back(reinterpret_cast<void const*>(address));
    }
};

/// Reference implementation. A row may have more conversions than arguments. Every conversion is a "%" and one character.
std::string format(std::ErrorID const& id, std::vector<std::string> const& arguments) {
    std::string const row = id.format;
    size_t const count = std::min(arguments.size(), static_cast<size_t>(id.nargs));
    std::string text;
    size_t next = 0;
    for (size_t i = 0; i < row.size(); ++i) {
        if (row[i] != '%') {
            text += row[i];
        } else if (++i < row.size()) {
            bool const is_percent = row[i] == '%';
            text += is_percent ? "%" : next < count ? arguments[next] : "?";
            next += is_percent ? 0 : 1;
        }
    }
    return text.size() <= LIMIT ? text : text.substr(0, LIMIT - 3) + "...";
}

void report(std::ErrorType const& type, int id, std::vector<std::ErrorArgument> const& list) {
    std::ErrorOutput const output("fuzz/Report", 1, true);
    switch (list.size()) {
    case 0:
        return output(type, id);
    case 1:
        return output(type, id, list[0]);
    case 2:
        return output(type, id, list[0], list[1]);
    case 3:
        return output(type, id, list[0], list[1], list[2]);
    default:
        return output(type, id, list[0], list[1], list[2], list[3]);
    }
}

/// Makes a report, and compares its text with that of the reference.
void checkReport(std::ErrorType const& type, int id, Arguments const& arguments) {
    std::ErrorID const* const row = type.getRow(id);
    std::string const expected =
        row != nullptr ? format(*row, arguments.texts) : "unknown error " + std::to_string(id);
    report(type, id, arguments.list);
    fuzz::check(std::ErrorStorage::get()->getText() == expected, "the text is that of the reference");
    fuzz::check(
        tarn_error.getReasonList().find(expected) != std::string::npos, "the text of the chain contains it");
    std::ErrorStorage::ack();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    Input input(data, size);
    size_t const family = input.take<uint8_t>() % (std::size(FAMILIES) + 1);
    if (family != 0) {
        int const byte = input.take<uint8_t>();
        int const id = byte < 128 ? byte : byte - 256;
        checkReport(*FAMILIES[family - 1], id, Arguments(input));
        return 0;
    }
    std::string const row = input.takeText();
    std::ErrorID const rows[] = {{0, row.c_str(), static_cast<int32_t>(MAX_ARGUMENTS)}};
    std::ErrorType const type(rows, 1);
    checkReport(type, 0, Arguments(input));
    checkReport(type, 1, Arguments(input)); // The family ends here, and a discarded chain is not looked at.
    return 0;
}
