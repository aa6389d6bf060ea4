#pragma once

#include "FileTests.h"

#include <vesk/StreamBinFileBase.h>

/// Tests of files as tables of steps.

namespace support {

/// The words of a step's action. Words that are missing are empty.
struct Words : std::vector<std::string> {
    int number(size_t index) const { return std::stoi(at(index)); }
    unsigned int count(size_t index) const {
        return at(index).empty() ? 0 : static_cast<unsigned int>(std::stoul(at(index)));
    }
};

/// Actions and the reports that they must cause. Actions without reports must succeed.
///
///     "write abc"
///     "write abc FAILS NO_SPACE ENOSPC TRANSFER_FAILED"   the cause, its error number, a report on top
///     "open file FAILS INVALID_PATH ENOENT BAD_PATH"      the report on top has the path
///     "write abc FAILS CLOSED"                            the reports of a closed object
///     "read 1 ENDS"                                       at the end of the stream
using StepList = std::vector<std::string>;

/// Performs steps on a file. After each operation that sets `hadError`, it must agree with the result.
///
///     open PATH [FLAG...]             "file" and other names are in the folder of the test
///     at NAME [nofollow]              opens an entry of the folder
///     read SIZE [TEXT]                reads once
///     write [TEXT] [COUNT]            writes once; COUNT is how much is accepted, by default all or nothing
///     seek ORIGIN OFFSET POSITION     from "begin", "current" or "end"
///     truncate SIZE, flush, sync, close
///     fail CALL ERRNO [TIMES]         makes system calls fail, until "calls" or the end of the steps
///     count CALL                      counts system calls
///     calls CALL COUNT                expects the number of calls
///     content NAME [TEXT]             expects the content of a file of the folder
///     valid, invalid                  expects the state of the object
///     lose                            closes the descriptor without the object
class Steps {
public:
    /// The result of an action: 1 for success, 0 at the end of a stream, -1 for a failure.
    using Verb = std::function<int(Words const&)>;

    Steps(TempFolder const& folder, Directory const& dir) : m_folder(folder) {
        verbs["at"] = [this, &dir](Words const& words) {
            bool const follow = words[2] != "nofollow";
            return m_file->openAt(dir, words[1].c_str(), follow, BinFileBase::READ, FileAccess::none) ? -1
                                                                                                      : 1;
        };
        verbs["close"] = operation([this](Words const&) { return m_file->close(); });
        verbs["truncate"] = [this](Words const& words) {
            return m_file->truncateSize(words.count(1)) ? -1 : 1;
        };
        verbs["lose"] = check([this](Words const&) { EXPECT_EQ(0, close(m_file->getDescriptor())); });
        verbs["flush"] = operation([this](Words const&) { return as<IBinOutputStream>().flush(true); });
        verbs["sync"] = operation([this](Words const&) { return as<IBinOutputStream>().flush(false); });
        verbs["seek"] = operation([this](Words const& words) { return seek(words); });
        verbs["read"] = [this](Words const& words) { return read(words); };
        verbs["write"] = [this](Words const& words) { return write(words); };
        verbs["count"] = [this](Words const& words) { return arm(words[1], 0, 1); };
        verbs["fail"] = [this](Words const& words) {
            return arm(words[1], errorOf(words[2]), words[3].empty() ? 1 : words.number(3));
        };
        verbs["calls"] = check([this](Words const& words) {
            EXPECT_EQ(words.number(2), m_faults.at(words[1])->getCalls());
            m_faults.erase(words[1]);
        });
        verbs["content"] =
            check([this](Words const& words) { EXPECT_EQ(words[2], contentOf(pathOf(words[1]))); });
        verbs["valid"] = check([this](Words const&) { EXPECT_TRUE(m_file->isValid()); });
        verbs["invalid"] = check([this](Words const&) { EXPECT_FALSE(m_file->isValid()); });
    }

    /// Sets how the file is opened.
    void openBy(std::function<bool(char const* path, unsigned int flags)> const& open) {
        verbs["open"] = operation([this, open](Words const& words) {
            std::map<std::string, unsigned int> const values = {
                {"", 0}, {"read", 1}, {"write", 2}, {"nonblock", 4}, {"create", 8}, {"truncate", 16}};
            unsigned int flags = 0;
            for (size_t i = 2; i < words.size(); ++i) {
                flags |= values.at(words[i]);
            }
            return open(pathOf(words[1]).c_str(), flags);
        });
    }

    /// Returns a verb of an operation that returns true if it fails, and sets `hadError`.
    Verb operation(std::function<bool(Words const&)> const& fails) {
        return [this, fails](Words const& words) { return hasError(fails(words) ? -1 : 1); };
    }

    /// Returns a verb that only checks.
    static Verb check(std::function<void(Words const&)> const& expect) {
        return [expect](Words const& words) {
            expect(words);
            return 1;
        };
    }

    void run(BinFileBase& file, StepList const& steps) {
        m_file = &file;
        for (std::string const& step : steps) {
            SCOPED_TRACE(step);
            std::istringstream stream(step);
            Words words;
            words.assign(std::istream_iterator<std::string>(stream), {});
            auto const end = std::find_if(
                words.begin(), words.end(), [](auto& word) { return word == "FAILS" || word == "ENDS"; });
            int const expected = end == words.end() ? 1 : *end == "ENDS" ? 0 : -1;
            Words ids;
            ids.assign(expected == -1 ? end + 1 : end, words.end());
            words.erase(end, words.end());
            words.resize(5);
            EXPECT_EQ(expected, verbs.at(words[0])(words));
            EXPECT_TRUE(chainIs(
                expected == 1       ? std::vector<ExpectedReport>()
                    : expected == 0 ? std::vector<ExpectedReport>{StreamErrorId::END_OF_STREAM}
                                    : reportsOf(words, ids)));
        }
        m_faults.clear();
    }

    std::map<std::string, Verb> verbs;
    /// The system calls that steps can count and make fail.
    std::map<std::string, Injected*> calls = {{"open", &inject_open},   {"openat", &inject_openat},
                                              {"close", &inject_close}, {"read", &inject_read},
                                              {"write", &inject_write}, {"fsync", &inject_fsync},
                                              {"lseek", &inject_lseek}, {"truncate", &inject_ftruncate}};

private:
    template <typename T>
    T& as() const {
        return dynamic_cast<T&>(*m_file);
    }

    std::string pathOf(std::string const& name) const {
        return name.empty() || name[0] == '/' ? name : m_folder / name;
    }

    static int errorOf(std::string const& name) {
        char const* text = nullptr;
        int error = 0;
        do {
            text = strerrorname_np(++error); // Some numbers have no name.
        } while (text == nullptr || name != text);
        return error;
    }

    std::vector<ExpectedReport> reportsOf(Words const& words, Words const& ids) const {
        static std::map<std::string, ExpectedReport> const reports = {
            {"ALREADY_EXISTS", FileAccessErrorId::ALREADY_EXISTS},
            {"BAD_PATH", FileAccessErrorId::BAD_PATH},
            {"IN_USE", SysErrorId::IN_USE},
            {"INPUT_OUTPUT", SysErrorId::INPUT_OUTPUT},
            {"INVALID_PARAMETER", SysErrorId::INVALID_PARAMETER},
            {"INVALID_PATH", SysErrorId::INVALID_PATH},
            {"NO_SPACE", SysErrorId::NO_SPACE},
            {"SPOILED_INTEGRITY", SysErrorId::SPOILED_INTEGRITY},
            {"TRANSFER_FAILED", StreamErrorId::TRANSFER_FAILED},
            {"UNUSABLE", StreamErrorId::UNUSABLE}};
        if (ids[0] == "CLOSED") {
            return closedFor(words[0] == "sync" ? "flush" : words[0]);
        }
        std::vector<ExpectedReport> chain = {reports.at(ids[0])};
        chain[0].text = rowText(*chain[0].family, chain[0].id, systemText(errorOf(ids[1])));
        if (ids.size() > 2) {
            chain.push_back(reports.at(ids[2]));
            if (chain[1].family != ExpectedReport(StreamErrorId::UNUSABLE).family) {
                std::string const path = words[0] == "at" ? words[1] : pathOf(words[1]);
                chain[1].text = rowText(*chain[1].family, chain[1].id, path);
            }
        }
        return chain;
    }

    int hasError(int result) const {
        EXPECT_EQ(result != 1, m_file->hadError());
        return result;
    }

    int arm(std::string const& call, int error, int times) {
        m_faults.erase(call);
        m_faults[call] = std::make_unique<Fault>(*calls.at(call), error, 1, times);
        return 1;
    }

    int read(Words const& words) const {
        std::string block(words.count(1), '\0');
        unsigned int count = 12345;
        int const result = as<IBinInputStream>().read(&block[0], words.count(1), count);
        EXPECT_EQ(words[2], block.substr(0, count));
        return hasError(result);
    }

    int write(Words const& words) const {
        unsigned int count = 12345;
        auto const size = static_cast<unsigned int>(words[1].size());
        int const result = as<IBinOutputStream>().write(words[1].data(), size, count);
        EXPECT_EQ(!words[2].empty() ? words.count(2) : result == 1 ? size : 0, count);
        return hasError(result);
    }

    bool seek(Words const& words) const {
        using File = vesk::StreamBinFileBase;
        File::SeekDirection const direction = words[1] == "begin" ? File::Begin
            : words[1] == "current"                               ? File::Current
                                                                  : File::End;
        unsigned int position = 12345;
        bool const failed = as<File>().seek(words.number(2), direction, position);
        EXPECT_TRUE(words[3].empty() || words.count(3) == position) << position;
        int const whences[] = {SEEK_CUR, SEEK_SET, SEEK_END};
        EXPECT_TRUE(failed || s_file_calls.seek_whence == whences[direction]);
        return failed;
    }

    TempFolder const& m_folder;
    BinFileBase* m_file = nullptr;
    std::map<std::string, std::unique_ptr<Fault>> m_faults;
};

} // namespace support
